// _value_t: the dynamically typed value. It holds an element of one of eleven
// types, a sequence of such elements, or nothing; copies share the content until
// one of them is written. Use std::variant where the compiler knows the types, and
// _value_t where they are known at run time only, as in an exception.
//
// Reading comes in two kinds. The conversion operators are strict: they convert
// only where a table says so, and throw EBadCastException otherwise. The as_*
// accessors are lenient and convert nearly everything. docs/value.md holds the
// tables.
#pragma once

#include <concepts>
#include <initializer_list>
#include <list>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "velt/base/ConstArray.h"
#include "velt/base/ConstString.h"
#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"
#include "velt/value/ElementTypes.h"
#include "velt/value/ValueData.h"

class _value_t;
class _variant_t;

namespace velt::detail {

[[noreturn]] VELT_API void throw_bad_cast(std::type_info const& from, std::type_info const& to);

// A new sequence holder with copies of the elements, in iteration order.
// Collection is const_array, std::list, std::set or std::vector of an element
// type.
template <class Collection>
_value_t_data* new_sequence(Collection const& elements);

template <class T>
concept counted_pointer = std::is_convertible_v<T, SmartPtrObj const*>;
template <class T>
concept text_pointer =
    std::is_convertible_v<T, char const*> || std::is_convertible_v<T, wchar_t const*>;

// What would silently become a bool: a pointer to anything but a counted object, and a
// class that converts to a raw handle.
template <class T>
concept raw_pointer = (std::is_pointer_v<std::decay_t<T>> && !counted_pointer<std::decay_t<T>>) ||
                      std::is_member_pointer_v<T>;
template <class T>
concept handle_owner = std::is_class_v<T> && !std::same_as<T, _value_t> && !text_pointer<T> &&
                       requires(T const& owner, void (&take)(void*)) { take(owner); };
template <class T>
concept never_a_value = raw_pointer<T> || handle_owner<T>;
// Text and holders have constructors of their own.
template <class T>
concept foreign_object = never_a_value<T> && !text_pointer<std::decay_t<T>> &&
                         !std::is_convertible_v<std::decay_t<T>, _value_t_data*>;

// Of this type there are no objects.
struct no_element {
  no_element() = delete;
};

template <class Char>
concept text_character = std::same_as<Char, char> || std::same_as<Char, wchar_t>;

template <class T>
concept becomes_value = !std::is_same_v<T, _value_t> && std::is_constructible_v<_value_t, T const&>;

}  // namespace velt::detail

// One pointer wide. A value has no lock: values of different threads may share
// their content, but each value belongs to one thread at a time.
class _value_t {
public:
  // The empty value, which holds nothing.
  _value_t() noexcept = default;
  _value_t(_value_t const&) noexcept = default;
  _value_t(_value_t&&) noexcept = default;  // leaves the source empty
  _value_t& operator=(_value_t const&) & noexcept = default;
  _value_t& operator=(_value_t&&) & noexcept = default;
  ~_value_t() = default;

  // v[0] = w would set the view, not the element: assign a scalar, such as w.as_int().
  _value_t& operator=(_value_t const& an_element_takes_scalars_only) && = delete;
  _value_t& operator=(_value_t&& an_element_takes_scalars_only) && = delete;

  // v = {} empties the value, as clear() does.
  _value_t& operator=(std::initializer_list<velt::detail::no_element>) & noexcept {
    clear();
    return *this;
  }

  // For each element type: construction; assignment, which keeps the type that
  // the value has (an empty value takes the new one); strict reading, which throws
  // EBadCastException from void if the value is empty; appending.
  //
  // Appending makes an empty value a scalar and a scalar a sequence of two. An
  // element of another type throws EBadCastException, and a scalar stays behind
  // as a sequence of one. The element may lie in the value itself.
#define VELT_FRONT(T, TAG)                \
  VELT_API _value_t(T const& value);      \
  VELT_API _value_t& operator=(T const& value); \
  VELT_API operator T() const;            \
  VELT_API void push_back(T const& value);
  VELT_ELEMENT_TYPES(VELT_FRONT)
#undef VELT_FRONT

  // The other integers of 32 bits, held as an element type.
#define VELT_HELD(T, Held)                                                          \
  _value_t(T value) : _value_t(static_cast<Held>(value)) {}                         \
  _value_t& operator=(T value) { return *this = static_cast<Held>(value); }         \
  void push_back(T value) { push_back(static_cast<Held>(value)); }
  VELT_HELD(long, int)
  VELT_HELD(unsigned int, unsigned long)
#undef VELT_HELD

  // Such as std::size_t. Say which type shall hold it: __int64 or unsigned long.
  _value_t(unsigned __int64 cast_it_to_an_element_type) = delete;
  _value_t& operator=(unsigned __int64 cast_it_to_an_element_type) = delete;
  void push_back(unsigned __int64 cast_it_to_an_element_type) = delete;

  // Text up to its terminator; must not be null.
  VELT_API _value_t(char const* text);
  VELT_API _value_t(wchar_t const* text);
  VELT_API _value_t& operator=(char const* text);
  VELT_API _value_t& operator=(wchar_t const* text);

  // Text of a given length. Length 0 gives an empty text whatever the pointer.
  VELT_API _value_t(basic_const_string<char> const& text);
  VELT_API _value_t(basic_const_string<wchar_t> const& text);
  VELT_API _value_t& operator=(basic_const_string<char> const& text);
  VELT_API _value_t& operator=(basic_const_string<wchar_t> const& text);
  template <velt::detail::text_character Char>
  _value_t(std::basic_string_view<Char> text) : _value_t(basic_const_string<Char>(text)) {}
  template <velt::detail::text_character Char>
  _value_t& operator=(std::basic_string_view<Char> text) {
    return *this = basic_const_string<Char>(text);
  }
  template <velt::detail::text_character Char>
  void push_back(std::basic_string_view<Char> text) { push_back(std::basic_string<Char>(text)); }

  // An object, to which the value takes a reference. Null gives a value that holds
  // a null handle, which is not the empty value.
  VELT_API _value_t(SmartPtrObj* object);
  VELT_API _value_t(SmartPtrObj const* object);
  VELT_API _value_t& operator=(SmartPtrObj* object);
  VELT_API _value_t& operator=(SmartPtrObj const* object);
  VELT_API void push_back(SmartPtrObj* object);
  VELT_API void push_back(SmartPtrObj const* object);

  // A handle of a derived class.
  template <class T>
    requires velt::detail::counted_pointer<T*>
  _value_t(SmartPtr<T> const& object) : _value_t(object.get()) {}
  template <class T>
    requires velt::detail::counted_pointer<T*>
  _value_t& operator=(SmartPtr<T> const& object) { return *this = object.get(); }
  template <class T>
    requires velt::detail::counted_pointer<T*>
  void push_back(SmartPtr<T> const& object) { push_back(object.get()); }

  // These would become a bool. Text is appended as a std::string.
  void push_back(char const* make_it_a_string) = delete;
  void push_back(wchar_t const* make_it_a_string) = delete;
  template <velt::detail::foreign_object T>
  _value_t(T const& pointer_or_handle) = delete;
  template <velt::detail::foreign_object T>
  _value_t& operator=(T const& pointer_or_handle) = delete;
  template <velt::detail::never_a_value T>
  void push_back(T const& pointer_or_handle) = delete;

  // A collection of an element type. The value becomes a sequence with copies of
  // the elements, in iteration order, whatever it held before.
  template <velt::detail::element_type T>
  _value_t(const_array<T> const& elements) : data(velt::detail::new_sequence(elements)) {}
  template <velt::detail::element_type T>
  _value_t(std::list<T> const& elements) : data(velt::detail::new_sequence(elements)) {}
  template <velt::detail::element_type T>
  _value_t(std::set<T> const& elements) : data(velt::detail::new_sequence(elements)) {}
  template <velt::detail::element_type T>
  _value_t(std::vector<T> const& elements) : data(velt::detail::new_sequence(elements)) {}

  // The same by assignment.
  template <velt::detail::element_type T>
  _value_t& operator=(const_array<T> const& elements) & { return replace(elements); }
  template <velt::detail::element_type T>
  _value_t& operator=(std::list<T> const& elements) & { return replace(elements); }
  template <velt::detail::element_type T>
  _value_t& operator=(std::set<T> const& elements) & { return replace(elements); }
  template <velt::detail::element_type T>
  _value_t& operator=(std::vector<T> const& elements) & { return replace(elements); }

  // Take ownership of a client's own holder, made with new. Assignment drops what the
  // value held.
  _value_t(_value_t_data* holder) noexcept : data(holder) {}
  _value_t& operator=(_value_t_data* holder) & noexcept {
    data = holder;
    return *this;
  }
  _value_t& operator=(_value_t_data* an_element_takes_scalars_only) && = delete;

  // Strict reading, the same as the conversion operators.
  template <velt::detail::element_type T>
  T get() const {
    if (empty()) velt::detail::throw_bad_cast(typeid(void), typeid(T));
    return data->get(static_cast<T const*>(nullptr));
  }

  // All elements; a scalar is a collection of one. An empty value and an empty
  // sequence of any type give an empty collection. Otherwise throws
  // EBadCastException unless the element type is exactly T.
  template <velt::detail::element_type T>
  operator std::list<T>() const { return collect<std::list<T>, T>(); }
  template <velt::detail::element_type T>
  operator std::set<T>() const { return collect<std::set<T>, T>(); }
  template <velt::detail::element_type T>
  operator std::vector<T>() const { return collect<std::vector<T>, T>(); }

  // A view of one element, valid until the value's end or its next push_back. The
  // mutable form's view writes through to the element, even where other values
  // share it, as long as the view is not copied. A scalar throws std::out_of_range
  // for any index but 0. A sequence does not check the index. The value must not be
  // empty.
  VELT_API const _value_t operator[](unsigned __int64 index) const;
  VELT_API _value_t operator[](unsigned __int64 index);

  // Appends the first element of another value, which must not be empty, read
  // strictly as the element type of the sequence. An empty value becomes a copy of
  // the other one.
  VELT_API void push_back(_value_t const& value);

  // Lenient reading. Throws EBadCastException from void if the value is empty,
  // and for the few pairs that do not convert. A sequence reads as its first
  // element, which must exist; only as_string lists all of them.
  VELT_API int as_int() const;
  VELT_API unsigned long as_ulong() const;
  VELT_API __int64 as_int64() const;
  VELT_API double as_double() const;
  VELT_API bool as_bool() const;
  VELT_API std::string as_string() const;
  VELT_API std::wstring as_wstring() const;
  VELT_API _bstr_t as_bstr() const;
  VELT_API _time_t as_time() const;

  // The content as a COM variant, read strictly: VT_R8, VT_DATE (UTC), VT_BSTR,
  // VT_BOOL, VT_UI4, VT_I8 or VT_INT. An object, and the content of a client's own
  // holder, give VT_EMPTY. The variant owns a copy of a string. A sequence gives its
  // first element, which must exist, and drops the rest.
  //
  // Throws EBadCastException from void if the value is empty, the COM error
  // 0x8007000E if there is no memory for the string, and what
  // _time_t::varianttime() throws.
  VELT_API _variant_t as_variant() const;

  // Does the value hold nothing?
  bool empty() const noexcept { return !data; }
  // The number of elements: 0 for the empty value, 1 for a scalar.
  unsigned __int64 size() const { return data ? data->size() : 0; }
  // Is it a sequence?
  bool container() const { return data && data->container(); }
  // Is its element type an object handle?
  bool object() const { return data && data->object(); }
  // The element type; void for the empty value.
  std::type_info const& type() const { return data ? data->type() : typeid(void); }
  // The holder itself, null for the empty value; it belongs to the value.
  _value_t_data const* holder() const noexcept { return data.get(); }

  // Makes the value empty.
  void clear() noexcept { data.reset(); }

  // Exchange the contents, without copies.
  void swap(_value_t& other) noexcept { data.swap(other.data); }
  friend void swap(_value_t& a, _value_t& b) noexcept { a.swap(b); }

  // Two empty values are equal, and an empty one is less than any other.
  // Otherwise the left side's type decides, and the right side is read strictly as
  // that type: a comparison can throw EBadCastException, and can do so in one
  // direction only. For a > b and b < a the left sides differ.
#define VELT_COMPARISON(OPERATOR, RESULT)                                             \
  friend bool operator OPERATOR(_value_t const& a, _value_t const& b) { return RESULT; } \
  template <velt::detail::becomes_value T>                                            \
  friend bool operator OPERATOR(_value_t const& a, T const& other) {                  \
    return a OPERATOR _value_t(other);                                                \
  }                                                                                   \
  template <velt::detail::becomes_value T>                                            \
  friend bool operator OPERATOR(T const& other, _value_t const& b) {                  \
    return _value_t(other) OPERATOR b;                                                \
  }
  VELT_COMPARISON(==, a.equal(b))
  VELT_COMPARISON(<, a.less(b))
  VELT_COMPARISON(>, a.greater(b))
  VELT_COMPARISON(<=, a.less(b) || a.equal(b))
  VELT_COMPARISON(>=, a.greater(b) || a.equal(b))
#undef VELT_COMPARISON

private:
  using holder_handle = SmartPtr<_value_t_data>;

  template <class Collection>
  _value_t& replace(Collection const& elements) {
    data = velt::detail::new_sequence(elements);
    return *this;
  }

  template <class Collection, class T>
  Collection collect() const {
    auto const count = size();
    if (count == 0) return Collection();
    T const* const first = data->getp(static_cast<T const*>(nullptr));
    return Collection(first, first + count);
  }

  template <class T>
  _value_t& assign(T const& value);
  template <class T>
  void append(T const& value);
  [[nodiscard]] holder_handle make_private();
  [[nodiscard]] holder_handle make_private_sequence();

  VELT_API bool equal(_value_t const& other) const;
  VELT_API bool less(_value_t const& other) const;
  VELT_API bool greater(_value_t const& other) const;

  holder_handle data;
};
