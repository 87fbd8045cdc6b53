// EGeneric, the root of the library's exceptions: an ordered list of named values.
// The thrower stores what it knows under names of its choice, handlers read the
// values back by name, and what() prints them all. EBadCastException, the failure of
// a value, is here too, since values and exceptions need each other.
#pragma once

#include <exception>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "velt/base/Export.h"
#include "velt/value/Value.h"

struct _CONTEXT;
struct _EXCEPTION_POINTERS;

namespace velt::detail {

// Adds diagnostics to an exception while it is being thrown.
class throw_watcher;

}  // namespace velt::detail

// The library itself writes these names: "Text", the message for people; "Code", a
// number; and, in the diagnostics, "MiniDump", "ModuleName", "AddressName" and
// "Stack". A derived class adds those that its comment names. Throwers choose others.
//
// Lookup of a name ignores the case of the 26 ASCII letters; every other byte must
// match. Copies share their values. Only one thread at a time may use an object.
class VELT_API EGeneric : public std::exception {
public:
  // A name and its value; P is the short form for throws.
  using named_value = std::pair<std::string, _value_t>;
  using P = named_value;

  EGeneric();
  // The copy shares the values.
  EGeneric(EGeneric const& other);
  // One to six values, in this order. Names are not checked for duplicates; lookup
  // finds the first.
  EGeneric(P const& a);
  EGeneric(P const& a, P const& b);
  EGeneric(P const& a, P const& b, P const& c);
  EGeneric(P const& a, P const& b, P const& c, P const& d);
  EGeneric(P const& a, P const& b, P const& c, P const& d, P const& e);
  EGeneric(P const& a, P const& b, P const& c, P const& d, P const& e, P const& f);

  // With `extend`, adds "MiniDump", "ModuleName", "AddressName" and "Stack" of the
  // caller, as far as the settings of the diagnostics ask for them. Adds nothing
  // where throws are watched, since the throw itself adds these.
  EGeneric(bool extend);
  // A number, a pointer or a value would be converted to bool.
  template <class T>
    requires(!std::is_same_v<T, bool> && std::is_convertible_v<T const&, bool>)
  EGeneric(T const&) = delete;

  // Shares the other's values, and drops those held.
  EGeneric& operator=(EGeneric const& other);
  ~EGeneric() override;

  // The list as text. A list with the single name "Text", spelt exactly so, gives
  // that text alone. Any other list gives a line "name: value" for each value; an int
  // or unsigned long is followed by its hexadecimal form.
  //
  // The text is valid only until the next what() of any exception on any thread,
  // since the whole process has one buffer: copy it at once. The standard library
  // forbids this operation to throw, so a value whose conversion throws is printed
  // as an empty one.
  char const* what() const noexcept override;

  // Replaces the value in its place, or appends it.
  void put_value(std::string const& name, _value_t const& value);
  // The value; an empty one if the name is absent.
  _value_t get_value(std::string const& name) const;
  // The value; `absent` if there is none. For handlers, where reading an empty value
  // would throw: int const code = error.get_value("Code", -1);
  _value_t get_value(std::string const& name, _value_t const& absent) const;
  _value_t operator[](std::string const& name) const;
  // The value in the list. Appends an empty value if the name is absent. The
  // reference is valid until the list next grows.
  _value_t& operator[](std::string const& name);
  // The list keeps its capacity.
  void clear_values();
  std::vector<named_value> const& values() const;

  // The stack of a thread as SymGetStackTrace prints it: at most 64 frames, without
  // the `skip` innermost ones. Starts at the context record of `pointers`. If that or
  // `pointers` is null, starts here, as StackWalk does.
  static std::string BuildStack(_EXCEPTION_POINTERS* pointers, unsigned int skip, void* thread);

  // Writes a dump of the process to a new file named by MiniDumpFileFormat, and creates
  // its folder. Returns the path, or an empty text if WriteMiniDump wrote no dump.
  // `pointers` may be null. The module in the name is the one to blame, or else the
  // program; the kind is the type of the thrown object, the code of a fault, or
  // "Dump". Stops the process until the dump is written.
  static std::string SaveMiniDump(_EXCEPTION_POINTERS* pointers, unsigned long type,
                                  unsigned long thread_id);
  // Deletes the file that "MiniDump" names, and removes the value: for a handler that
  // finds the exception harmless.
  void cancel_minidump();

protected:
  // These add "MiniDump", "ModuleName", "AddressName" and "Stack", as far as the
  // settings ask for them and they are available. This one is for a thrown object.
  // Where throws are watched it writes no dump, and adds nothing at all without a
  // context.
  void ExtendDebugInformation(_CONTEXT* context);
  // For a fault.
  void ExtendDebugInformation(_EXCEPTION_POINTERS* pointers);

  // The first value of that name; the end of the list if there is none.
  std::vector<named_value>::iterator find_value(std::string const& name);
  std::vector<named_value>::const_iterator find_value(std::string const& name) const;
  // Swaps the element with the last one; does nothing if the name is absent.
  void move_to_back(std::string const& name);

private:
  friend class velt::detail::throw_watcher;

  void append(std::string const& name, _value_t const& value);
  void append_all(std::initializer_list<P const*> values);

  std::vector<named_value> list;
};

// A value cannot be converted to the type asked for. "Text" is "Bad cast", "From" and
// "To" are the readable names of the types, and "RealType", if given, is that of the
// object found.
class VELT_API EBadCastException : public EGeneric {
public:
  // Of a failed conversion from `from` to `to`; `real` is the type of the object found.
  EBadCastException(std::type_info const& from, std::type_info const& to);
  EBadCastException(std::type_info const& from, std::type_info const& to,
                    std::type_info const& real);
};
