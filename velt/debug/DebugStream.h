// TDebugStream: text to any number of writers, one statement at a time.
//
//   Debug << "(!) " << count << " jobs lost\n";
//
// From the first << to the semicolon the statement owns the stream, so the lines
// of several threads never mix as long as each is one statement. Text goes to
// the writers at once and nothing is buffered: what was written before a crash
// is there after it. There are no levels; a caller may ask GetEnabled() before
// it composes a message.
#pragma once

#include <bitset>
#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

#include "velt/base/ConstString.h"
#include "velt/base/Export.h"
#include "velt/base/SmartPtr.h"
#include "velt/debug/StreamLock.h"
#include "velt/debug/StreamWriter.h"
#include "velt/time/Time.h"
#include "velt/value/Value.h"

class _bstr_t;
class TDebugStreamSession;

// The lock of a stream is a recursive mutex of the kernel. It is taken by every
// operation that is said to lock, once for all of them within a statement, in an
// alertable wait without limit; so what a queued call throws, an
// EThreadInterrupt for one, can come out of them, and ESystemException if the
// wait fails. Code that a statement calls may write to the same stream.
//
// A writer that throws is dropped from the stream. The other writers still get
// the text, and the caller learns nothing. Writers leave the thread's last error
// as it was, so that a statement can write it at its end.
class VELT_API TDebugStream {
public:
  // Without writers everything is swallowed. Throw ESystemException.
  TDebugStream() = default;
  TDebugStream(SmartPtr<TStreamWriter> a);
  TDebugStream(SmartPtr<TStreamWriter> a, SmartPtr<TStreamWriter> b);
  TDebugStream(SmartPtr<TStreamWriter> a, SmartPtr<TStreamWriter> b, SmartPtr<TStreamWriter> c);

  // The copy has a list of its own of the same writers, and shares the lock: a
  // statement on the one keeps statements on the other waiting. Does not lock,
  // so nobody may change the source meanwhile. Throws ESystemException.
  TDebugStream(TDebugStream const&) = default;

  // The same, in place of what the stream had. No session on it may be alive.
  // Assigned to itself a stream loses its lock: THandle's assignment.
  TDebugStream& operator=(TDebugStream const&) = default;

  // Throws ESystemException if the mutex cannot be closed.
  virtual ~TDebugStream() noexcept(false);

  // Lock. A writer may be in the list several times, and then gets every text as
  // often; null must not be. The writer to remove must be in the list, and the
  // first occurrence of it goes.
  void AddWriter(SmartPtr<TStreamWriter> writer);
  void RemoveWriter(SmartPtr<TStreamWriter> writer);
  void ClearWriters();

  // ClearWriters(), then AddWriter(): the lock is free in between, and text
  // written there is lost.
  void ChangeWriter(SmartPtr<TStreamWriter> writer);

  // Is there any writer? Does not lock.
  bool GetEnabled() const { return !Writers.empty(); }

  // A bit for each class of messages, named by the letters from A to Z and clear
  // at first. They are for the clients to agree on: the stream writes whatever
  // it is given. Reading gives false for other letters and while there is no
  // writer; setting throws std::out_of_range for other letters. Neither locks.
  // To ask for a class that is off costs a load and a branch that is not taken.
  bool GetEnabled(char classLetter) const {
    if (is_class(classLetter) && EnabledClasses[class_index(classLetter)]) [[unlikely]]
      return GetEnabled();
    return false;
  }
  void SetEnabled(char classLetter, bool enabled);

  // Locks, and sends the bytes to all writers in their order. A null `text` and
  // a `size` of 0 write nothing. A TDebugWriter needs a zero byte behind them.
  // Time stamps are inserted before locking: with those, several threads should
  // write by statements only.
  TDebugStream& WriteString(char const* text, unsigned __int64 size);

  // By the formats of the platform's run time. Text of more than 4095 characters
  // is cut to these, and a zero byte goes out behind them as the 4096th; so it
  // does when an argument cannot be formatted.
  TDebugStream& printf(char const* format, ...);

  // As "%g", and as the beginning of a statement.
  TDebugStreamSession WriteDouble(double value);

  // Bytes as pairs of upper-case hexadecimal digits with blanks between: "01 02
  // FF". Nothing for a `size` of 0 or below. The beginning of a statement.
  TDebugStreamSession Dump(void const* data, int size);

  // Adds the writers of the other stream. Locks this stream, then the other one:
  // two threads that do it crosswise wait for ever.
  TDebugStream& operator+=(TDebugStream const& other);

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
  // Does every line begin with what now2() gives? Not guarded by the lock.
  bool TimeStamps = false;

private:
  std::bitset<26> EnabledClasses;
  unsigned short LastDay = 0;
};

// Holds a stream for a statement, or for a scope if it is given a name: the
// lines of several statements then stay together. Belongs to the thread that
// made it, and the stream must outlive it.
//
// Numbers are written by the run time's formats. Texts are written as they are,
// wide ones in the system's ANSI code page. Writing throws what locking a stream
// throws, std::bad_alloc, and ESystemException if wide text cannot be converted.
class VELT_API TDebugStreamSession {
public:
  TDebugStreamSession(TDebugStream& owned);

  // A second hold, which ends by itself.
  TDebugStreamSession(TDebugStreamSession const& other);
  TDebugStreamSession& operator=(TDebugStreamSession const&) = delete;
  ~TDebugStreamSession() noexcept(false);

  TDebugStreamSession& operator<<(bool value);  // "true" or "false"
  TDebugStreamSession& operator<<(char value);  // the byte itself
  TDebugStreamSession& operator<<(unsigned char value);  // a number
  TDebugStreamSession& operator<<(unsigned short value);
  TDebugStreamSession& operator<<(int value);
  TDebugStreamSession& operator<<(unsigned int value);
  TDebugStreamSession& operator<<(unsigned long value);
  TDebugStreamSession& operator<<(__int64 value);
  TDebugStreamSession& operator<<(unsigned __int64 value);
  TDebugStreamSession& operator<<(double value);  // "%g"

  // Terminated text; "<null>" for null.
  TDebugStreamSession& operator<<(char const* text);
  TDebugStreamSession& operator<<(wchar_t const* text);

  TDebugStreamSession& operator<<(std::string const& text);
  TDebugStreamSession& operator<<(std::wstring const& text);

  // A TDebugWriter needs a zero byte behind the view of narrow text.
  TDebugStreamSession& operator<<(basic_const_string<char> const& text);
  TDebugStreamSession& operator<<(basic_const_string<wchar_t> const& text);

  // Up to its first NUL. Null and empty write nothing.
  TDebugStreamSession& operator<<(_bstr_t const& text);

  TDebugStreamSession& operator<<(_time_t const& time);  // as _time_t::ctime()

  // As _value_t::as_string(), cut as by printf and up to its first NUL. "<void>"
  // for the empty value and for a sequence of no elements.
  TDebugStreamSession& operator<<(_value_t const& value);

  // As SmartPtrObj::describe(); "<NULL>" for null.
  TDebugStreamSession& operator<<(SmartPtrObj const* object);

  // Any other pointer would silently be written as a bool.
  template <velt::detail::foreign_object T>
  TDebugStreamSession& operator<<(T* pointer) = delete;

private:
  TDebugStream* stream;
};

// Begins a statement at the stream with anything that a session writes. The
// result lives, and holds the stream, to the end of the full expression.
template <class T>
TDebugStreamSession operator<<(TDebugStream& stream, T const& value) {
  TDebugStreamSession session(stream);
  session << value;
  return session;
}

// The ready streams. They live from the loading of the library to its unloading,
// so the static objects of its clients may use them too.
extern VELT_API TDebugStream Debug;    // to the debugger
extern VELT_API TDebugStream Error;    // to the debugger, the console and c:\error.log
extern VELT_API TDebugStream Console;  // to the console
