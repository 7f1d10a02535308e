#pragma once

#include <utility>

#include "skein/loops.h"

namespace skein {

/// Calls back on the next turn of the loop, once, however often it is armed before that. The
/// callback may arm it again.
class NextTurn {
 public:
  NextTurn(Loop& loop, Loop::Callback callback) : loop_(loop), callback_(std::move(callback)) {}
  NextTurn(const NextTurn&) = delete;
  NextTurn& operator=(const NextTurn&) = delete;
  ~NextTurn() { timer_.cancel(); }

  void arm() {
    if (armed_) return;
    timer_ = loop_.call_in(0, [this] {
      armed_ = false;
      callback_();
    });
    armed_ = true;
  }

  void disarm() {
    if (!armed_) return;
    timer_.cancel();
    armed_ = false;
  }

 private:
  Loop& loop_;
  Loop::Callback callback_;
  Timer timer_;
  bool armed_ = false;
};

}  // namespace skein
