// The concrete holders. All of them read, and most of them write, through a
// pointer to an element, so the grid of operations is written once, and a holder
// only tells where its element lies:
//
//   _value_t_data_t    owns one value
//   _value_t_pdata_t   refers to an element of another holder
//   _value_t_pcdata_t  the same, read-only
//   _value_t_cont_t    owns a sequence, and reads as its first element
#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "velt/value/ConversionsInternal.h"
#include "velt/value/StrictTablesInternal.h"
#include "velt/value/Value.h"
#include "velt/value/ValueData.h"

template <class T>
class _value_t_data_t;
template <class T>
class _value_t_pdata_t;
template <class T>
class _value_t_pcdata_t;
template <class T>
class _value_t_cont_t;

namespace velt::detail {

// The operations that all holders of a T share. Holder provides element(), the
// address of the element to read, and first(), the result of getp.
template <class Holder, class T>
class reading_holder : public _value_t_data {
public:
  using _value_t_data::get;
  using _value_t_data::getp;

  std::type_info const& type() const override { return typeid(T); }
  bool object() const override { return is_object<T>; }
  unsigned int vartype() const override { return variant_tag<T>; }

#define VELT_GET(Asked, TAG) \
  Asked get(Asked const* tag) const override { return read(tag); }
  VELT_ELEMENT_TYPES(VELT_GET)
#undef VELT_GET

  T const* getp(T const*) const override { return self().first(); }

protected:
  Holder const& self() const { return static_cast<Holder const&>(*this); }
  Holder& self() { return static_cast<Holder&>(*this); }

private:
  template <class Asked>
  Asked read(Asked const* tag) const {
    if constexpr (reads_strictly<T, Asked>)
      return convert<Asked>(*self().element());
    else
      return _value_t_data::get(tag);
  }
};

// Adds writing into the element to a holder.
template <class Base, class T>
class writing_holder : public Base {
public:
  using Base::Base;
  using Base::put;

#define VELT_PUT(Given, TAG) \
  void put(Given const& value) override { write(value); }
  VELT_ELEMENT_TYPES(VELT_PUT)
#undef VELT_PUT

private:
  template <class Given>
  void write(Given const& value) {
    if constexpr (writes_strictly<T, Given>)
      *this->self().element() = convert<T>(value);
    else
      _value_t_data::put(value);
  }
};

// Shared by the three holders of a single element.
template <class Holder, class T>
class scalar_holder : public reading_holder<Holder, T> {
public:
  using reading_holder<Holder, T>::get;

  T const* first() const { return this->self().element(); }

  _value_t_data* clone() const override { return new _value_t_data_t<T>(*first()); }
  _value_t_data* to_container() const override {
    return new _value_t_cont_t<T>(first(), first() + 1);
  }

  bool equal(_value_t_data const& other) const override {
    return other.size() == this->size() && element_equal(*first(), other.get(first()));
  }
  bool less(_value_t_data const& other) const override {
    return element_less(*first(), other.get(first()));
  }

  _value_t_data* get(unsigned __int64 index) const override {
    only_index_0(index);
    return new _value_t_pcdata_t<T>(first());
  }

protected:
  static void only_index_0(unsigned __int64 index) {
    if (index != 0) throw std::out_of_range("out of range");
  }
};

// A scalar whose element may be written, also through a view.
template <class Holder, class T>
class writable_scalar : public writing_holder<scalar_holder<Holder, T>, T> {
public:
  using scalar_holder<Holder, T>::get;

  _value_t_data* get(unsigned __int64 index) override {
    this->only_index_0(index);
    return new _value_t_pdata_t<T>(this->self().element());
  }
};

// The storage of a sequence's elements. std::vector<bool> would pack bits, and the
// holder hands out the addresses of elements.
template <class T>
struct sequence_storage {
  using type = std::vector<T>;
};
template <>
struct sequence_storage<bool> {
  using type = std::basic_string<bool>;
};

}  // namespace velt::detail

template <class T>
class _value_t_data_t final
    : public velt::detail::writable_scalar<_value_t_data_t<T>, T> {
public:
  explicit _value_t_data_t(T const& source) : value(source) {}
  explicit _value_t_data_t(T&& source) : value(std::move(source)) {}

  T const* element() const { return &value; }
  T* element() { return &value; }

private:
  T value;
};

template <class T>
class _value_t_pdata_t final
    : public velt::detail::writable_scalar<_value_t_pdata_t<T>, T> {
public:
  explicit _value_t_pdata_t(T* source) : ptr(source) {}

  T* element() const { return ptr; }

private:
  T* ptr;
};

template <class T>
class _value_t_pcdata_t final : public velt::detail::scalar_holder<_value_t_pcdata_t<T>, T> {
public:
  // Keeps the refusal of the mutable get.
  using _value_t_data::get;
  using velt::detail::scalar_holder<_value_t_pcdata_t<T>, T>::get;

  explicit _value_t_pcdata_t(T const* source) : ptr(source) {}

  T const* element() const { return ptr; }

private:
  T const* ptr;
};

template <class T>
class _value_t_cont_t final
    : public velt::detail::writing_holder<velt::detail::reading_holder<_value_t_cont_t<T>, T>, T> {
public:
  using _value_t_data::get;
  using _value_t_data::push_back;

  template <class Iterator>
  _value_t_cont_t(Iterator begin, Iterator end) : items(begin, end) {}

  // Element 0 is not guarded. Of empty sequences only one of bool has it.
  T const* element() const { return items.data(); }
  T* element() { return items.data(); }
  T const* first() const {
    return items.empty() && !std::is_same_v<T, bool> ? nullptr : items.data();
  }

  _value_t_data* clone() const override {
    return new _value_t_cont_t(items.begin(), items.end());
  }
  _value_t_data* to_container() const override { return clone(); }

  unsigned __int64 size() const override { return items.size(); }
  bool container() const override { return true; }

  bool equal(_value_t_data const& other) const override {
    if (other.size() != size()) return false;
    T const* const others = other.getp(first());
    return std::equal(items.begin(), items.end(), others,
                      [](T const& a, T const& b) { return velt::detail::element_equal(a, b); });
  }
  bool less(_value_t_data const& other) const override {
    T const* const others = other.getp(first());
    return std::lexicographical_compare(
        items.begin(), items.end(), others, others + other.size(),
        [](T const& a, T const& b) { return velt::detail::element_less(a, b); });
  }

  _value_t_data* get(unsigned __int64 index) const override {
    return new _value_t_pcdata_t<T>(items.data() + index);
  }
  _value_t_data* get(unsigned __int64 index) override {
    return new _value_t_pdata_t<T>(items.data() + index);
  }

  void push_back(T const& value) override { items.push_back(value); }
  void push_back(_value_t const& value) override {
    items.push_back(value.holder()->get(static_cast<T const*>(nullptr)));
  }

private:
  typename velt::detail::sequence_storage<T>::type items;
};

namespace velt::detail {

// The element of a _value_t_data_t<T>; null for any other holder and for none. This
// is faster than a virtual call, and reads the element without a copy.
template <class T>
T const* own_element(_value_t_data const* held) {
  if (!held || &typeid(*held) != &typeid(_value_t_data_t<T>)) return nullptr;
  return static_cast<_value_t_data_t<T> const*>(held)->element();
}

}  // namespace velt::detail
