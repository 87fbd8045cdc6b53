// AutoPtr: the single owner of a raw block that a platform call fills with a
// plain record and the strings behind it. It frees the block without running a
// destructor; for objects use std::unique_ptr.
#pragma once

#include <atomic>
#include <new>
#include <type_traits>

// `T` is a plain record. The block comes from operator new and is usually larger
// than T. Nothing throws.
template <class T>
class AutoPtr {
  static_assert(std::is_trivially_destructible_v<T>, "no destructor of T runs");

public:
  constexpr AutoPtr() noexcept = default;
  // Owns `block`, which was allocated by operator new, or nothing if it is null.
  explicit AutoPtr(T* block) noexcept : ptr(block) {}
  // Take the block; `other` then owns nothing.
  AutoPtr(AutoPtr&& other) noexcept : ptr(other.release()) {}
  AutoPtr& operator=(AutoPtr&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~AutoPtr() { reset(); }

  // Takes ownership of `block` and frees the previous one. Several threads may
  // reset one owner: each block is freed once.
  void reset(T* block = nullptr) noexcept {
    if (T* const old = ptr.exchange(block)) ::operator delete(old);
  }

  // Gives the block up without freeing it.
  T* release() noexcept { return ptr.exchange(nullptr); }

  // The block, or null. The dereferencing operators do not check for null.
  T* get() const noexcept { return ptr.load(std::memory_order_acquire); }
  T* operator->() const noexcept { return get(); }
  T& operator*() const noexcept { return *get(); }
  explicit operator bool() const noexcept { return get() != nullptr; }

private:
  std::atomic<T*> ptr = nullptr;
};
