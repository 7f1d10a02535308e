#pragma once

#include <uv.h>

#include <memory>

namespace skein {

/// Closes a libuv handle and frees its struct in the close callback. `data` is cleared first: a
/// callback that is already under way finds no object there and returns.
template <class Uv>
struct CloseThenDelete {
  void operator()(Uv* uv) const noexcept {
    uv->data = nullptr;
    uv_close(reinterpret_cast<uv_handle_t*>(uv),
             [](uv_handle_t* handle) { delete reinterpret_cast<Uv*>(handle); });
  }
};

/// The one owner of a libuv handle that has been initialised on its loop.
template <class Uv>
using UvHandle = std::unique_ptr<Uv, CloseThenDelete<Uv>>;

}  // namespace skein
