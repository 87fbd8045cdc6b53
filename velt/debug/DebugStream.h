// TDebugStream: text to any number of writers, one statement at a time.
//
//   Debug << "(!) " << count << " jobs lost\n";
//
// A statement owns the stream from its first << to its semicolon, so the lines of
// several threads never mix as long as each line is one statement. The stream has no
// buffer: each << goes to the writers at once, so text written before a crash is
// there after it. There are no levels; a caller may ask GetEnabled() before it
// composes a message.
#pragma once

#include <bitset>
#include <cstdarg>
#include <cstddef>
#include <exception>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "velt/base/ConstString.h"
#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"
#include "velt/debug/StreamLock.h"
#include "velt/debug/Writers.h"
#include "velt/text/Format.h"
#include "velt/time/Time.h"
#include "velt/value/Value.h"

class _bstr_t;
class TDebugStreamSession;

// Time stamps: the current local time as the beginning of a line, with a blank
// behind it. For times that programs read, use _time_t::iso8601time().

// "29.02.04 12:30:45 ": day, month and a year of two digits, then the time.
VELT_API std::string now();

// "12:30:45.678 ". If the day of the month differs from `lastDay`, puts the date on a
// line of its own in front, "29.02.2004\n12:30:45.678 ", and stores the day in
// `lastDay`. Start with 0, which is no day.
VELT_API std::string now2(unsigned short& lastDay);

// The lock of a stream is a recursive mutex of the kernel. Each operation marked
// "Locks" takes it; all operations within one statement or session take it once
// together. The wait is alertable and has no limit. It throws ESystemException if it
// fails, and whatever a queued call throws, such as EThreadInterrupt. Code that a
// statement calls may write to the same stream.
//
// A stream drops a writer that throws. The other writers still get the text, and the
// caller is not told. Writing does not change the thread's last error, so that a
// statement can write it at its end.
class VELT_API TDebugStream {
public:
  // A stream without writers discards all text. These constructors throw
  // ESystemException if the lock cannot be created.
  TDebugStream() = default;
  TDebugStream(SmartPtr<TStreamWriter> a);
  TDebugStream(SmartPtr<TStreamWriter> a, SmartPtr<TStreamWriter> b);
  TDebugStream(SmartPtr<TStreamWriter> a, SmartPtr<TStreamWriter> b, SmartPtr<TStreamWriter> c);

  // The copy has its own list of the same writers, and shares the lock: a statement
  // on one of the streams makes statements on the other wait. Does not lock, so no
  // other thread may change the source meanwhile. Throws ESystemException.
  TDebugStream(TDebugStream const&) = default;

  // Like the copy constructor; replaces what the stream had. No session on it may be
  // alive. A stream that is assigned to itself loses its lock, as any THandle does.
  TDebugStream& operator=(TDebugStream const&) = default;

  // Throws ESystemException if the mutex cannot be closed.
  virtual ~TDebugStream() noexcept(false);

  // Each of these locks. A writer that was added several times gets every text as
  // often. A writer must not be null. RemoveWriter removes the first occurrence of
  // the writer, which must be in the list.
  void AddWriter(SmartPtr<TStreamWriter> writer);
  void RemoveWriter(SmartPtr<TStreamWriter> writer);
  void ClearWriters();

  // ClearWriters(), then AddWriter(). The lock is free in between, and text that
  // another thread writes then is lost.
  void ChangeWriter(SmartPtr<TStreamWriter> writer);

  // Is there any writer? Does not lock.
  bool GetEnabled() const { return !Writers.empty(); }

  // A bit for each class of messages, named by the letters from A to Z and clear at
  // first. Clients agree on the meaning of the classes; the stream itself writes
  // whatever it is given. Reading gives false for any other letter, and while there
  // is no writer; setting throws std::out_of_range for any other letter. Neither
  // locks. Asking for a class that is off costs one load and one branch that is not
  // taken.
  bool GetEnabled(char classLetter) const {
    if (is_class(classLetter) && EnabledClasses[class_index(classLetter)]) [[unlikely]]
      return GetEnabled();
    return false;
  }
  void SetEnabled(char classLetter, bool enabled);

  // Locks, and sends the bytes to all writers in their order. Writes nothing if
  // `text` is null or `size` is 0. A TDebugWriter needs a zero byte behind the text.
  // Time stamps are inserted before locking: with TimeStamps set, several threads
  // should write by statements only.
  TDebugStream& WriteString(char const* text, unsigned __int64 size);

  // Locks. Uses the formats of the platform's run time. Longer text is cut to 4095
  // characters, with a zero byte sent as the 4096th; 4096 bytes are also sent if an
  // argument cannot be formatted.
  TDebugStream& printf(char const* format, ...);
  template <class... Arguments>
    requires velt::detail::has_objects<Arguments...>
  TDebugStream& printf(char const* format, Arguments const&... pass_c_str) = delete;

  // Writes the number as "%g", and begins a statement.
  TDebugStreamSession WriteDouble(double value);

  // Writes bytes as pairs of upper-case hexadecimal digits with blanks between, such
  // as "01 02 FF", and begins a statement. Writes nothing for a `size` of 0 or below.
  TDebugStreamSession Dump(void const* data, int size);

  // Adds the writers of the other stream. Locks this stream, then the other one: two
  // threads that add two streams to each other dead-lock.
  TDebugStream& operator+=(TDebugStream const& other);
  // AddWriter().
  TDebugStream& operator+=(SmartPtr<TStreamWriter> writer);

private:
  friend class TDebugStreamSession;

  static bool is_class(char letter) { return letter >= 'A' && letter <= 'Z'; }
  static std::size_t class_index(char letter) { return static_cast<std::size_t>(letter - 'A'); }

  TDebugStream& print(char const* format, va_list arguments);
  std::string stamped(char const* text, unsigned __int64 size);
  void send(char const* text, unsigned __int64 size);
  void drop(std::size_t index, SmartPtr<TStreamWriter> const& writer);

  std::vector<SmartPtr<TStreamWriter>> Writers;
  velt::detail::stream_lock Lock;
  bool AtLineStart = true;

public:
  // If set, every line begins with the text of now2(). The lock does not guard it.
  bool TimeStamps = false;

private:
  std::bitset<26> EnabledClasses;
  unsigned short LastDay = 0;
};

// Holds a stream for a statement, or for a scope if it has a name: the lines of
// several statements then stay together. Only the thread that made a session may use
// it, and the stream must outlive it.
//
// Numbers are written in the run time's formats. Text is written as it is, and wide
// text in the system's ANSI code page. Writing throws what locking a stream throws,
// std::bad_alloc, and ESystemException if wide text cannot be converted.
class VELT_API TDebugStreamSession {
public:
  // Locks the stream until the session ends.
  TDebugStreamSession(TDebugStream& owned);

  // A second hold, independent of the first.
  TDebugStreamSession(TDebugStreamSession const& other);
  TDebugStreamSession& operator=(TDebugStreamSession const&) = delete;
  ~TDebugStreamSession() noexcept(false);

  TDebugStreamSession& operator<<(bool value);  // "true" or "false"
  TDebugStreamSession& operator<<(char value);  // the byte itself
  TDebugStreamSession& operator<<(unsigned char value);  // a number
  TDebugStreamSession& operator<<(wchar_t value);        // the character
  // Numbers in decimal.
  TDebugStreamSession& operator<<(unsigned short value);
  TDebugStreamSession& operator<<(int value);
  TDebugStreamSession& operator<<(long value);
  TDebugStreamSession& operator<<(unsigned int value);
  TDebugStreamSession& operator<<(unsigned long value);
  TDebugStreamSession& operator<<(__int64 value);
  TDebugStreamSession& operator<<(unsigned __int64 value);
  TDebugStreamSession& operator<<(double value);  // "%g"

  // Terminated text; "<null>" for null.
  TDebugStreamSession& operator<<(char const* text);
  TDebugStreamSession& operator<<(wchar_t const* text);

  // The whole text, NULs included.
  TDebugStreamSession& operator<<(std::string const& text);
  TDebugStreamSession& operator<<(std::wstring const& text);

  // The whole view, copied.
  TDebugStreamSession& operator<<(std::string_view text);
  TDebugStreamSession& operator<<(std::wstring_view text);

  // A TDebugWriter needs a zero byte behind a view of narrow text.
  TDebugStreamSession& operator<<(basic_const_string<char> const& text);
  TDebugStreamSession& operator<<(basic_const_string<wchar_t> const& text);

  // Up to its first NUL. Nothing for null and for empty text.
  TDebugStreamSession& operator<<(_bstr_t const& text);

  TDebugStreamSession& operator<<(_time_t const& time);  // as _time_t::ctime()

  // The text of _value_t::as_string() up to its first zero byte, cut as by printf.
  // "<void>" for the empty value and for a sequence without elements.
  TDebugStreamSession& operator<<(_value_t const& value);

  // The text of SmartPtrObj::describe(); "<NULL>" for null.
  TDebugStreamSession& operator<<(SmartPtrObj const* object);

  TDebugStreamSession& operator<<(std::exception const& error);  // its what()

  // std::endl writes "\n"; there is no buffer to flush.
  TDebugStreamSession& operator<<(std::ostream& (*manipulator)(std::ostream&));

  // Other pointers, and owners of handles, would be written as a bool.
  template <velt::detail::never_a_value T>
    requires(!velt::detail::text_pointer<std::decay_t<T>>)
  TDebugStreamSession& operator<<(T const& pointer_or_handle) = delete;

private:
  TDebugStream* stream;
};

namespace velt::detail {

template <class T>
concept writable = requires(TDebugStreamSession& session, T const& value) { session << value; };

// Asked before `writable`, which would otherwise ask itself about sessions.
template <class T>
concept begins_statements = requires(T& stream, void (&take)(TDebugStream&)) { take(stream); };

}  // namespace velt::detail

// Begins a statement on the stream with anything that a session can write. The
// result lives to the end of the full expression and holds the stream until then.
template <velt::detail::begins_statements Stream, velt::detail::writable T>
TDebugStreamSession operator<<(Stream& stream, T const& value) {
  TDebugStreamSession session(stream);
  session << value;
  return session;
}
inline TDebugStreamSession operator<<(TDebugStream& stream,
                                      std::ostream& (*manipulator)(std::ostream&)) {
  TDebugStreamSession session(stream);
  session << manipulator;
  return session;
}

// Anything else: one message of the compiler, with the type in it.
template <velt::detail::begins_statements Stream, class T>
  requires(!velt::detail::writable<T>)
TDebugStreamSession operator<<(Stream&, T const& no_stream_can_write_it) = delete;

// The ready streams. They live from the load of the library to its unload, so static
// objects of clients may use them.
extern VELT_API TDebugStream Debug;    // to the debugger
extern VELT_API TDebugStream Error;    // to the debugger, the console and c:\error.log
extern VELT_API TDebugStream Console;  // to the console
