#pragma once

namespace skein {

/// A place in an IntrusiveList: a public member of the object that stands there.
template <class T>
struct ListLink {
  T* previous = nullptr;
  T* next = nullptr;
};

/// A doubly linked list of objects that carry their own place, `link`. Owns none of them. Adding
/// and removing take constant time and no memory, so neither can fail.
template <class T, ListLink<T> T::*link>
class IntrusiveList {
 public:
  bool empty() const noexcept { return first_ == nullptr; }
  /// The list must not be empty.
  T& front() const noexcept { return *first_; }

  /// `object` must not stand in a list by the same link.
  void push_back(T& object) noexcept {
    object.*link = {last_, nullptr};
    (last_ == nullptr ? first_ : (last_->*link).next) = &object;
    last_ = &object;
  }

  /// `object` must stand in this list.
  void remove(T& object) noexcept {
    const auto [previous, next] = object.*link;
    (previous == nullptr ? first_ : (previous->*link).next) = next;
    (next == nullptr ? last_ : (next->*link).previous) = previous;
    object.*link = {};
  }

 private:
  T* first_ = nullptr;
  T* last_ = nullptr;
};

}  // namespace skein
