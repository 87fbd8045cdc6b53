// SmartPtrObj and SmartPtr: counted objects and the handle that owns them. The
// count lies in the object, so a handle is one pointer wide, and unlike a
// std::shared_ptr it can be made from a raw pointer at any time.
#pragma once

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>

#include "velt/base/Export.h"

namespace velt::detail {

// The count in every counted object. A copy starts at 0. Assignment copies the
// number, so an object that handles refer to must not be assigned to.
class reference_count {
public:
  constexpr reference_count() noexcept = default;
  reference_count(reference_count const&) noexcept {}
  reference_count& operator=(reference_count const& other) noexcept {
    count.store(other.value(), std::memory_order_relaxed);
    return *this;
  }

  // Return the new count.
  int increment() noexcept { return count.fetch_add(1, std::memory_order_relaxed) + 1; }
  int decrement() noexcept { return count.fetch_sub(1, std::memory_order_acq_rel) - 1; }

  // For a reference that an object takes to itself. False if its destruction has
  // begun.
  bool increment_unless_zero() noexcept {
    int found = value();
    while (found != 0 && !count.compare_exchange_weak(found, found + 1)) {
    }
    return found != 0;
  }

  // For an object that no other thread knows yet: saves the locked instruction.
  void take_first() noexcept { count.store(1, std::memory_order_relaxed); }

  int value() const noexcept { return count.load(std::memory_order_acquire); }

private:
  std::atomic<int> count = 0;
};

}  // namespace velt::detail

template <class T>
class SmartPtr;

// Base of the counted objects. Derive from it virtually, so that a class with two
// counted bases has one count. Make objects with new: the count is 0 until the
// first SmartPtr takes the object, and the thread that releases the last handle
// deletes it. Until a handle takes an object, its maker owns it.
//
// The destructor may throw, so that a derived class may have members whose destructors
// do, such as handles. A release does not throw: an exception out of it ends the program.
// A class that also derives from a class of the standard library must declare its own
// destructor noexcept.
class VELT_API SmartPtrObj {
public:
  SmartPtrObj() noexcept = default;

  // The copy starts with no references, whatever the source has.
  SmartPtrObj(SmartPtrObj const&) noexcept = default;

  // Copies the count too: an object that handles refer to must not be
  // assigned to.
  SmartPtrObj& operator=(SmartPtrObj const&) noexcept = default;

  virtual ~SmartPtrObj() noexcept(false);

  // A readable identity: the name of the run-time type, then the low 32 bits
  // of the address, as in "Job {0x41f0c0}". Two objects can print alike.
  virtual std::string describe() const;

protected:
  // The number of handles.
  mutable velt::detail::reference_count refs;

  template <class T>
  friend class SmartPtr;
};

// The owning handle of a counted object. T is SmartPtrObj, a class derived from
// it, either of them const, or another class with a virtual destructor and a
// `refs` of the same protocol.
//
// Several threads may assign to one handle, or reset it, at the same time: every
// old object is released exactly once. A handle must not be copied while another
// thread replaces it. Distinct handles to one object need no lock. Nothing throws,
// and dereferencing does not check for null.
template <class T>
class SmartPtr {
public:
  // As in the standard handles.
  using element_type = T;

  constexpr SmartPtr() noexcept = default;
  // A template, so that NULL, which is a number, means the pointer.
  constexpr SmartPtr(std::same_as<std::nullptr_t> auto) noexcept {}
  SmartPtr(T* object) noexcept : ptr(object) { add_reference(object); }
  SmartPtr(SmartPtr const& other) noexcept : SmartPtr(other.get()) {}

  // Costs no locked instruction; the source is null afterwards.
  SmartPtr(SmartPtr&& other) noexcept : ptr(other.detach()) {}

  // To a base class, or to const.
  template <class U>
    requires std::convertible_to<U*, T*>
  SmartPtr(SmartPtr<U> const& other) noexcept : SmartPtr(static_cast<T*>(other.get())) {}

  // The same, from a handle that is null afterwards.
  template <class U>
    requires std::convertible_to<U*, T*>
  SmartPtr(SmartPtr<U>&& other) noexcept : ptr(other.detach()) {}

  // Null before the object is deleted: its destructor may look at the handle. No
  // other thread may use a handle that is being destroyed, so a plain store does;
  // reset() exchanges, for handles that several threads use.
  ~SmartPtr() {
    T* const object = get();
    if (!object || object->refs.decrement() != 0) return;
    ptr.store(nullptr, std::memory_order_relaxed);
    delete object;
  }

  // Take a reference to the new object, then release the old one.
  SmartPtr& operator=(T* object) noexcept {
    // First, since the new object may be the old one, or be kept alive by it.
    add_reference(object);
    release(ptr.exchange(object));
    return *this;
  }
  SmartPtr& operator=(SmartPtr const& other) noexcept { return *this = other.get(); }
  SmartPtr& operator=(SmartPtr&& other) noexcept {
    T* const object = other.detach();
    release(ptr.exchange(object));
    return *this;
  }
  SmartPtr& operator=(std::same_as<std::nullptr_t> auto) noexcept {
    reset();
    return *this;
  }

  // Releases the object and leaves the handle null.
  void reset() noexcept { release(ptr.exchange(nullptr)); }

  // Replaces the object in one step and returns the old one.
  SmartPtr exchange(SmartPtr other) noexcept {
    SmartPtr old;
    old.ptr.store(ptr.exchange(other.detach()), std::memory_order_relaxed);
    return old;
  }

  // Not for handles that several threads use.
  void swap(SmartPtr& other) noexcept {
    T* const mine = get();
    ptr.store(other.get(), std::memory_order_relaxed);
    other.ptr.store(mine, std::memory_order_relaxed);
  }
  friend void swap(SmartPtr& a, SmartPtr& b) noexcept { a.swap(b); }

  // Takes a new object, to which no other handle refers yet.
  static SmartPtr adopt_new(T* object) noexcept {
    SmartPtr result;
    object->refs.take_first();
    result.ptr.store(object, std::memory_order_relaxed);
    return result;
  }

  // The object, or null. The dereferencing operators do not check for null.
  T* get() const noexcept { return ptr.load(std::memory_order_acquire); }
  T* operator->() const noexcept { return get(); }
  T& operator*() const noexcept { return *get(); }
  explicit operator bool() const noexcept { return get() != nullptr; }

  // The number of handles to the object; a hint while other threads hold some.
  int use_count() const noexcept { return get() ? get()->refs.value() : 0; }

  // Compare addresses: identity, and unsigned order.
  template <class U>
  friend bool operator==(SmartPtr const& a, SmartPtr<U> const& b) noexcept {
    return a.get() == b.get();
  }
  friend bool operator==(SmartPtr const& a, T const* b) noexcept { return a.get() == b; }
  friend bool operator==(SmartPtr const& a, std::same_as<std::nullptr_t> auto) noexcept {
    return !a;
  }
  template <class U>
  friend std::strong_ordering operator<=>(SmartPtr const& a, SmartPtr<U> const& b) noexcept {
    return std::compare_three_way()(a.get(), b.get());
  }

private:
  static void add_reference(T* object) noexcept {
    if (object) object->refs.increment();
  }
  static void release(T* object) noexcept {
    if (object && object->refs.decrement() == 0) delete object;
  }
  T* detach() noexcept {
    T* const object = get();
    ptr.store(nullptr, std::memory_order_relaxed);
    return object;
  }

  std::atomic<T*> ptr = nullptr;

  template <class U>
  friend class SmartPtr;
};

// By the address, so that handles can be keys.
template <class T>
struct std::hash<SmartPtr<T>> {
  // The hash of the object's address.
  std::size_t operator()(SmartPtr<T> const& handle) const noexcept {
    return std::hash<T*>()(handle.get());
  }
};

// Makes a counted object and its first handle.
template <class T, class... Arguments>
SmartPtr<T> MakeCounted(Arguments&&... arguments) {
  return SmartPtr<T>::adopt_new(new T(std::forward<Arguments>(arguments)...));
}
