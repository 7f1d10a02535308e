#pragma once

// What a function says that a profiled run shall measure. Header only, and below everything else:
// whoever measures says so by `active`. In any other run a scope costs a branch on entering and one
// on leaving. Loop thread only; nothing is locked.
namespace skein::profile {

/// One function that can be measured; static.
struct Site {
  const char* file;
  unsigned line;
  const char* function;
  void* record = nullptr;  ///< the active recorder's, from the first call on
};

/// Hears of every call of a function that can be measured.
class Recorder {
 public:
  virtual void enter(Site& site) = 0;
  virtual void leave() noexcept = 0;

 protected:
  ~Recorder() = default;
};

/// The recorder at work; none in a run that is not profiled.
inline Recorder* active = nullptr;

/// Measures from here to the end of the block.
class Scope {
 public:
  explicit Scope(Site& site) : recorder_(active) {
    if (recorder_ != nullptr) [[unlikely]]
      recorder_->enter(site);
  }
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;
  ~Scope() {
    if (recorder_ != nullptr) [[unlikely]]
      recorder_->leave();
  }

 private:
  Recorder* recorder_;
};

/// First statement of a function that a profiled run shall measure.
#define PROFILE_SCOPE()                                                               \
  static constinit ::skein::profile::Site profile_site{__FILE__, __LINE__, __func__}; \
  const ::skein::profile::Scope profile_scope(profile_site)

}  // namespace skein::profile
