#include "pelorus/pelorus/log_pacer.h"

#include <algorithm>
#include <exception>
#include <memory>

#include "skein/errors.h"

namespace pelorus::log {

Pacer::Pacer(StderrSink* sink, skein::Loop& loop) : sink_(sink), loop_(loop) {
  if (sink_ == nullptr) return;
  auto handle = std::make_unique<uv_prepare_t>();
  uv_prepare_init(loop.uv(), handle.get());  // neither this nor the start can fail
  handle->data = this;
  prepare_.reset(handle.release());
  uv_prepare_start(prepare_.get(), [](uv_prepare_t* prepare) {
    if (prepare->data != nullptr) static_cast<Pacer*>(prepare->data)->turn_ends();
  });
  uv_unref(reinterpret_cast<uv_handle_t*>(prepare_.get()));
  sink_->set_paced(true);
}

Pacer::~Pacer() {
  timer_.cancel();
  if (sink_ != nullptr) sink_->set_paced(false);
}

void Pacer::turn_ends() {
  if (timer_armed_) return;
  try {
    try_again();
  } catch (const std::exception& failure) {  // libuv, which has called, knows no exceptions
    loop_.report(failure);
  }
}

void Pacer::try_again() {
  const auto before = sink_->written();
  timer_armed_ = false;
  const bool all_out = sink_->pace();
  if (all_out || sink_->written() > before) wait_ = SHORTEST_WAIT;
  if (all_out) return;
  timer_ = loop_.call_in(wait_, [this] { try_again(); });
  timer_armed_ = true;
  wait_ = std::min(2 * wait_, LONGEST_WAIT);
}

}  // namespace pelorus::log
