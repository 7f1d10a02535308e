#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "skein/intrusive_list.h"
#include "skein/limits.h"
#include "skein/loops.h"

namespace skein {

/// Decides who is served next on an iteration of the loop: deficit round robin (Shreedhar and
/// Varghese, 1995) with two classes. Whoever has work stands in the queue of its class, once:
///
///     authenticated     A  B  C       each visit: credit += 256 KiB      2 MiB an iteration
///     unauthenticated   x  y  z ...   each visit: credit += 128 KiB      1 MiB an iteration
///
/// The one in front gets its share as credit and works as long as the credit covers the next piece.
/// If it has more to do then, it goes to the back and keeps what is left of its credit; otherwise
/// it leaves and loses it. A piece costs as many bytes as its content has when it is decoded,
/// because that is what takes time: a KiB on the wire can become 20. So a frame of 16 MiB waits for
/// 64 visits while small frames of others pass it, and nobody gets more than its part by large
/// frames, many small ones, or many connections at a time.
///
/// An iteration ends for a class when its pieces have cost the share of the class. What is left is
/// served on the next iteration, after the descriptors have been looked at again. The authenticated
/// are served first; since each class has its own share of an iteration, neither takes the other's.
///
/// One for all servers of a process. Loop thread only.
class ReadyQueue {
 public:
  /// What a visit may cost.
  class Credit {
   public:
    /// No piece costs less than this, however little is in it.
    static constexpr std::size_t LEAST_COST = 1024;

    /// Both are counted down: the credit of one, and what is left of the iteration for its class.
    Credit(std::size_t& credit, std::size_t& budget) noexcept : credit_(credit), budget_(budget) {}

    /// Pays for a piece of `bytes` of content. False: the credit does not cover it yet.
    bool spend(std::size_t bytes) noexcept;
    /// Work whose cost is not known before it is done counts in the iteration alone.
    void charge(std::size_t bytes) noexcept;

   private:
    std::size_t& credit_;
    std::size_t& budget_;
  };

  /// Somebody who is served in turn. Must have left the queue when it is destroyed.
  class Entry {
   public:
    Entry() = default;
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    /// Works as long as the credit lasts; whether there is more to do. Must not throw.
    virtual bool serve(Credit credit) noexcept = 0;
    /// Its class. Looked at each time when it goes to the back of a queue.
    virtual bool is_authenticated() const noexcept = 0;
    bool is_queued() const noexcept { return queue != NO_QUEUE; }

    // The queue's own: nobody else changes them.
    static constexpr std::uint8_t NO_QUEUE = 0xFF;
    ListLink<Entry> place;
    std::uint32_t carried = 0;      ///< credit left from the visits before
    std::uint8_t queue = NO_QUEUE;  ///< where it stands: number of a class

   protected:
    ~Entry() = default;
  };

  /// Throws SystemFailure.
  ReadyQueue(Loop& loop, const Limits& limits);

  /// `entry` has work: it is served at the end of this iteration or later. One that stands in the
  /// queue keeps its place. Cannot fail.
  void add(Entry& entry) noexcept;
  /// Harmless for one that does not stand there.
  void remove(Entry& entry) noexcept;

 private:
  struct Queue {
    Limits::Share share;
    IntrusiveList<Entry, &Entry::place> entries{};
  };

  void run() noexcept;
  void serve(Queue& queue) noexcept;

  std::array<Queue, 2> queues_;  ///< authenticated, unauthenticated
  EndOfIterationTask task_;
};

}  // namespace skein
