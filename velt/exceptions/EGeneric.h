// EGeneric, the root of the library's exceptions: an ordered list of named
// values. The thrower says what it knows under names of its choosing, handlers
// read those names back, and what() prints them all. EBadCastException, the
// failure of a value, stands here too, since value and exception need each
// other from the first.
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

// Completes an exception while its throw is under way.
class throw_watcher;

}  // namespace velt::detail

// Names that the library itself writes: "Text", the message for people;
// "Code", a number; and, by the diagnostics, "MiniDump", "ModuleName",
// "AddressName" and "Stack". All others belong to the thrower.
//
// Names are looked up without regard to the case of the 26 ASCII letters; every
// other byte must match. Copies share their values. One object belongs to one
// thread at a time.
class VELT_API EGeneric : public std::exception {
public:
  using named_value = std::pair<std::string, _value_t>;
  using P = named_value;

  EGeneric();
  EGeneric(EGeneric const& other);
  // One to six values, in this order. Names are not checked for duplicates; a
  // lookup finds the first.
  EGeneric(P const& a);
  EGeneric(P const& a, P const& b);
  EGeneric(P const& a, P const& b, P const& c);
  EGeneric(P const& a, P const& b, P const& c, P const& d);
  EGeneric(P const& a, P const& b, P const& c, P const& d, P const& e);
  EGeneric(P const& a, P const& b, P const& c, P const& d, P const& e, P const& f);

  // With `extend`, what the settings of the diagnostics ask for of "MiniDump",
  // "ModuleName", "AddressName" and "Stack", as of the caller. Nothing where
  // throws are watched, since the throw itself brings these.
  EGeneric(bool extend);
  // A number, a pointer or a value would silently become a bool.
  template <class T>
    requires(!std::is_same_v<T, bool> && std::is_convertible_v<T const&, bool>)
  EGeneric(T const&) = delete;

  EGeneric& operator=(EGeneric const& other);
  ~EGeneric() override;

  // The list as text. A list of one value named exactly "Text" gives that text
  // alone; any other gives a line "name: value" for each value, numbers of type
  // int and unsigned long with their hexadecimal form behind.
  //
  // The text is good only until the next what() of any exception on any
  // thread: there is one buffer for the whole process. Copy it at once. The
  // standard library forbids this operation to throw, so a value whose
  // conversion throws is printed as an empty one.
  char const* what() const noexcept override;

  // Replaces the value in its place, or appends it.
  void put_value(std::string const& name, _value_t const& value);
  // The value, or an empty one if the name is absent.
  _value_t get_value(std::string const& name) const;
  _value_t operator[](std::string const& name) const;
  // The value in the list, appended as an empty one if the name is absent. The
  // reference is good until the list next grows.
  _value_t& operator[](std::string const& name);
  // The list keeps its capacity.
  void clear_values();
  std::vector<named_value> const& values() const;

  // Stack of a thread as SymGetStackTrace prints it, at most 64 frames, without
  // the innermost `skip`. From the context record of `pointers`; where that or
  // `pointers` is null, from here, as StackWalk does.
  static std::string BuildStack(_EXCEPTION_POINTERS* pointers, unsigned int skip, void* thread);

  // Writes a dump of the process to a file named by MiniDumpFileFormat, and
  // makes its folder; returns the path, or nothing if there is no dump
  // (WriteMiniDump). `pointers` may be null. The module is the one to blame, else
  // the program; the kind is the type of the thrown object, the code of a fault,
  // or "Dump". Stops the process for as long as it takes.
  static std::string SaveMiniDump(_EXCEPTION_POINTERS* pointers, unsigned long type,
                                  unsigned long thread_id);
  // Deletes the file that "MiniDump" names, and the value: for a handler that
  // finds the exception harmless.
  void cancel_minidump();

protected:
  // Put "MiniDump", "ModuleName", "AddressName" and "Stack", as far as the
  // settings ask for them and they are to be had. For an object that is thrown:
  // a dump only where throws are not watched, and without a context nothing
  // more where they are.
  void ExtendDebugInformation(_CONTEXT* context);
  // For a fault.
  void ExtendDebugInformation(_EXCEPTION_POINTERS* pointers);

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

// A conversion between types of a value that is not provided. "Text" is "Bad
// cast", "From" and "To" are the readable names of the types, and "RealType",
// if given, that of the object found.
class VELT_API EBadCastException : public EGeneric {
public:
  EBadCastException(std::type_info const& from, std::type_info const& to);
  EBadCastException(std::type_info const& from, std::type_info const& to,
                    std::type_info const& real);
};
