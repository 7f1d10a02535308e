#include "bench/frames.h"

#include <fmt/format.h>

#include <array>

#include "bench/corpus.h"
#include "skein/encoders/msgpackencoder.h"
#include "skein/framing.h"

namespace bench {
namespace {

constexpr std::uint64_t REQUEST = 0;
constexpr std::uint64_t REPLY = 1;
constexpr std::uint64_t MSGID = 7;

/// What goes wrong at a sender: a plugin without a rule, a source of no kind, a line that was cut,
/// a name that ends too early.
constexpr std::array<std::string_view, 7> BAD_LINES{"{}.unknownplugin.a.value 1 1700000000\n",
                                                    "host1.load.load.shortterm 0.5 1700000000\n",
                                                    "{}.load.load.shortterm 0.5\n",
                                                    "{}.vmem.other.value 3 1700000000\n",
                                                    "{}.memory.memory 4 1700000000\n",
                                                    "{}.irq 4 1700000000\n",
                                                    "abc.load.load.midterm 1 1700000000\n"};

std::string framed(std::string_view content) {
  std::string frame;
  skein::append_frame(content, frame);
  return frame;
}

std::string bad_line(std::size_t number, std::string_view line) {
  const std::string_view source = line.substr(0, line.find('.'));
  return fmt::format(fmt::runtime(BAD_LINES[number % BAD_LINES.size()]), source);
}

/// Walks round the corpus line by line.
class Lines {
 public:
  explicit Lines(std::size_t first) {
    for (std::size_t i = 0; i < first; ++i) next();
  }
  std::string_view next() {
    const std::string_view all = corpus();
    if (at_ == all.size()) at_ = 0;
    const std::size_t end = all.find('\n', at_) + 1;
    const std::string_view line = all.substr(at_, end - at_);
    at_ = end;
    return line;
  }

 private:
  std::size_t at_ = 0;
};

}  // namespace

Frames::Frames(const Cut& cut, std::string_view key) : lines_(cut.lines) {
  Lines lines(cut.first_line);
  for (std::size_t done = 0; done < cut.lines;) {
    std::string block;
    for (std::size_t i = 0; i < cut.per_frame && done < cut.lines; ++i, ++done) {
      const std::string_view line = lines.next();
      if (cut.bad_every != 0 && done % cut.bad_every == 0) {
        block += bad_line(done / cut.bad_every, line);
      } else {
        block += line;
      }
    }
    skein::MsgpackWriter args;
    args.map(2).text("key").text(key).text("metrics").text(block);
    bytes_ += request_frame("collectd", args.bytes());
    ends_.push_back(bytes_.size());
  }
}

std::string_view Frames::run(std::size_t first, std::size_t count) const noexcept {
  const std::size_t begin = ends_[first];
  return std::string_view(bytes_).substr(begin, ends_[first + count] - begin);
}

std::string request_frame(std::string_view name, std::string_view encoded_args) {
  skein::MsgpackWriter request;
  request.list(4).natural(REQUEST).natural(MSGID).text(name).encoded(encoded_args);
  return framed(request.bytes());
}

std::string good_reply() {
  skein::MsgpackWriter reply;
  reply.list(4).natural(REPLY).natural(MSGID).nil().nil();
  return framed(reply.bytes());
}

}  // namespace bench
