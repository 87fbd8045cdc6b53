// _value_t_data: the holder behind a value. Its operations form a fixed grid:
// for each of the eleven element types one get, put, push_back and getp. The
// base refuses nearly all of them as a failed conversion, and each holder overrides
// those that it supports: the pattern of overrides is the conversion policy.
#pragma once

#include <cstddef>
#include <string>
#include <typeinfo>

#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"
#include "velt/value/ElementTypes.h"

class _value_t;

// Counted by the protocol of SmartPtr: a new holder has no references. Const
// operations may run in parallel; put and push_back must run alone. "Throws A to B"
// means EBadCastException with "From" A and "To" B.
class VELT_API _value_t_data {
public:
  _value_t_data() noexcept = default;
  _value_t_data(_value_t_data const&) noexcept = default;           // no references
  _value_t_data& operator=(_value_t_data const&) noexcept = default;  // copies the count

  virtual ~_value_t_data();

  // The element type, also for a sequence or a view of one element.
  virtual std::type_info const& type() const = 0;
  // A new holder that owns a copy: a scalar for a view, a sequence for a sequence.
  virtual _value_t_data* clone() const = 0;
  // A new sequence holder with copies of the elements.
  virtual _value_t_data* to_container() const = 0;
  // Read the other holder strictly as this one's type, and so throw if its type
  // does not convert to it.
  virtual bool equal(_value_t_data const& other) const = 0;
  virtual bool less(_value_t_data const& other) const = 0;

  virtual unsigned __int64 size() const;  // 1
  virtual bool container() const;         // is it a sequence? false
  virtual bool object() const;            // is the element an object handle? false

  // Strict reading. The pointer selects the overload and is never dereferenced.
  // Throws type() to T.
#define VELT_GET(T, TAG) virtual T get(T const*) const;
  VELT_ELEMENT_TYPES(VELT_GET)
#undef VELT_GET

  // A new view of the element at the index. Throws type() to
  // _value_t_data const*, or to _value_t_data*.
  virtual _value_t_data* get(unsigned __int64 index) const;
  virtual _value_t_data* get(unsigned __int64 index);

  // Appending to a sequence. Throws T to type().
#define VELT_PUSH_BACK(T, TAG) virtual void push_back(T const&);
  VELT_ELEMENT_TYPES(VELT_PUSH_BACK)
#undef VELT_PUSH_BACK
  virtual void push_back(_value_t const& value);

  // The COM variant tag of the element type.
  virtual unsigned int vartype() const = 0;

  // Strict writing. Throws T to type().
#define VELT_PUT(T, TAG) virtual void put(T const&);
  VELT_ELEMENT_TYPES(VELT_PUT)
#undef VELT_PUT

  // The address of the first element, for exactly its own type. Throws type()
  // to T.
#define VELT_GETP(T, TAG) virtual T const* getp(T const*) const;
  VELT_ELEMENT_TYPES(VELT_GETP)
#undef VELT_GETP

  // Holders are small and short-lived, so each thread keeps a cache of blocks.
  static void* operator new(std::size_t size);
  static void operator delete(void* block, std::size_t size) noexcept;

protected:
  // The number of handles.
  velt::detail::reference_count refs;

  template <class T>
  friend class SmartPtr;
};
