// AutoPtr: the single owner of a raw block that a platform call fills with a
// plain record and what belongs to it. For objects use std::unique_ptr; this
// owner frees the block without running a destructor.
#pragma once

#include <atomic>
#include <new>
#include <type_traits>

// `T` is a plain record. The block was allocated with operator new and is as a
// rule larger than T: records are followed by their strings. Nothing throws.
template <class T>
class AutoPtr {
  static_assert(std::is_trivially_destructible_v<T>, "no destructor of T runs");

public:
  constexpr AutoPtr() noexcept = default;
  explicit AutoPtr(T* block) noexcept : ptr(block) {}
  AutoPtr(AutoPtr&& other) noexcept : ptr(other.release()) {}
  AutoPtr& operator=(AutoPtr&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~AutoPtr() { reset(); }

  // Takes `block` over and frees the previous one. Two threads may reset the
  // same owner: each block is freed once.
  void reset(T* block = nullptr) noexcept {
    if (T* const old = ptr.exchange(block)) ::operator delete(old);
  }

  // Gives the block up without freeing it.
  T* release() noexcept { return ptr.exchange(nullptr); }

  T* get() const noexcept { return ptr.load(std::memory_order_acquire); }
  T* operator->() const noexcept { return get(); }
  T& operator*() const noexcept { return *get(); }
  explicit operator bool() const noexcept { return get() != nullptr; }

private:
  std::atomic<T*> ptr = nullptr;
};
