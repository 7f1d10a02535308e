#pragma once

// What a function says that the call profiler behind "--profile" shall measure: see profile.h. A
// header of its own, because the functions need nothing else of the profiler.
namespace pelorus::profile {

class Profiler;

/// One function that can be measured; static, made by PROFILE_SCOPE().
struct Site {
  const char* file;
  unsigned line;
  const char* function;
  void* record = nullptr;  ///< the active profiler's, from the first call on
};

/// The profiler at work; none in a run that is not profiled.
inline Profiler* active = nullptr;

void enter(Profiler& profiler, Site& site);
void leave(Profiler& profiler) noexcept;

/// Measures from here to the end of the block.
class Scope {
 public:
  explicit Scope(Site& site) : profiler_(active) {
    if (profiler_ != nullptr) [[unlikely]]
      enter(*profiler_, site);
  }
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;
  ~Scope() {
    if (profiler_ != nullptr) [[unlikely]]
      leave(*profiler_);
  }

 private:
  Profiler* profiler_;
};

/// First statement of a function that a profiled run shall measure.
#define PROFILE_SCOPE()                                                                 \
  static constinit ::pelorus::profile::Site profile_site{__FILE__, __LINE__, __func__}; \
  const ::pelorus::profile::Scope profile_scope(profile_site)

}  // namespace pelorus::profile
