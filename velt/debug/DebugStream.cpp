#include "velt/debug/DebugStream.h"

#include <comdef.h>
#include <stdio.h>
#include <time.h>
#include <windows.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "velt/base/LastErrorInternal.h"
#include "velt/base/LoadOrderInternal.h"
#include "velt/faults/StackOverflowException.h"
#include "velt/text/Encoding.h"
#include "velt/text/Format.h"

namespace {

using writer_list = std::vector<SmartPtr<TStreamWriter>>;

// Moves the list to where nothing destroys it, without a call of the heap.
void abandon(writer_list& writers) {
  alignas(writer_list) static unsigned char grave[sizeof(writer_list)];
  new (grave) writer_list(std::move(writers));
}

}  // namespace

std::string now() {
  auto const seconds = _time64(nullptr);
  tm local = {};
  _localtime64_s(&local, &seconds);
  char text[260];
  return {text, strftime(text, sizeof text, "%d.%m.%y %H:%M:%S ", &local)};
}

std::string now2(unsigned short& lastDay) {
  SYSTEMTIME time;
  GetLocalTime(&time);
  auto const clock = format_string("%02hd:%02hd:%02hd.%03hd ", time.wHour, time.wMinute,
                                   time.wSecond, time.wMilliseconds);
  if (time.wDay == lastDay) return clock;
  lastDay = time.wDay;
  return format_string("%02hd.%02hd.%04hd\n", time.wDay, time.wMonth, time.wYear) + clock;
}

TDebugStream::TDebugStream(SmartPtr<TStreamWriter> a) : Writers{a} {}
TDebugStream::TDebugStream(SmartPtr<TStreamWriter> a, SmartPtr<TStreamWriter> b)
    : Writers{a, b} {}
TDebugStream::TDebugStream(SmartPtr<TStreamWriter> a, SmartPtr<TStreamWriter> b,
                           SmartPtr<TStreamWriter> c)
    : Writers{a, b, c} {}

// At the end of the process the platform has already stopped the writing threads,
// perhaps in the middle of a change to the heap. Releasing the writers needs a heap
// that is whole.
TDebugStream::~TDebugStream() noexcept(false) {
  if (velt::detail::process_ends()) abandon(Writers);
}

void TDebugStream::AddWriter(SmartPtr<TStreamWriter> writer) {
  TLock guard(Lock);
  Writers.push_back(std::move(writer));
}

void TDebugStream::RemoveWriter(SmartPtr<TStreamWriter> writer) {
  TLock guard(Lock);
  auto const found = std::find(Writers.begin(), Writers.end(), writer);
  assert(found != Writers.end());
  Writers.erase(found);
}

void TDebugStream::ClearWriters() {
  TLock guard(Lock);
  Writers.clear();
}

void TDebugStream::ChangeWriter(SmartPtr<TStreamWriter> writer) {
  ClearWriters();
  AddWriter(std::move(writer));
}

void TDebugStream::SetEnabled(char classLetter, bool enabled) {
  if (!is_class(classLetter)) throw std::out_of_range("invalid bitset<N> position");
  EnabledClasses.set(class_index(classLetter), enabled);
}

TDebugStream& TDebugStream::WriteString(char const* text, unsigned __int64 size) {
  if (!text || size == 0) return *this;
  if (TimeStamps) {
    auto const lines = stamped(text, size);
    send(lines.data(), lines.size());
  } else {
    send(text, size);
  }
  return *this;
}

// Only appends: inserting the stamps would move the rest of the text at each line.
std::string TDebugStream::stamped(char const* text, unsigned __int64 size) {
  std::string result;
  for (std::string_view rest(text, size); !rest.empty();) {
    if (AtLineStart) result += now2(LastDay);
    auto const end = rest.find('\n');
    AtLineStart = end != rest.npos;
    auto const line = rest.substr(0, AtLineStart ? end + 1 : rest.npos);
    result += line;
    rest.remove_prefix(line.size());
  }
  return result;
}

// A writer may change the list, so the loop keeps the writer alive and checks its
// place again. Some writers change the last error, TDebugWriter for one.
void TDebugStream::send(char const* text, unsigned __int64 size) {
  TLock guard(Lock);
  velt::detail::last_error_keeper const error;
  auto count = Writers.size();
  for (std::size_t index = 0; index < std::min(count, Writers.size()); ++index) {
    auto const writer = Writers[index];
    try {
      writer->StreamWriteString(text, size);
    } catch (EStackOverflowException const&) {
      // Not the writer's failure; and only the caller's handler can give the stack
      // its guard back.
      throw;
    } catch (...) {
      drop(index, writer);
      --index;
      --count;
    }
  }
}

void TDebugStream::drop(std::size_t index, SmartPtr<TStreamWriter> const& writer) {
  if (index < Writers.size() && Writers[index] == writer)
    Writers.erase(Writers.begin() + static_cast<std::ptrdiff_t>(index));
}

TDebugStream& TDebugStream::printf(char const* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  print(format, arguments);
  va_end(arguments);
  return *this;
}

// The buffer is cleared because all of it is sent if the run time fails.
TDebugStream& TDebugStream::print(char const* format, va_list arguments) {
  char buffer[4096] = {};
  int const length = _vsnprintf_s(buffer, sizeof buffer, sizeof buffer - 1, format, arguments);
  return WriteString(buffer, length == -1 ? sizeof buffer : static_cast<std::size_t>(length));
}

TDebugStreamSession TDebugStream::WriteDouble(double value) {
  TDebugStreamSession session(*this);
  printf("%g", value);
  return session;
}

TDebugStreamSession TDebugStream::Dump(void const* data, int size) {
  TDebugStreamSession session(*this);
  auto const bytes = static_cast<unsigned char const*>(data);
  for (int index = 0; index < size; ++index)
    printf(index + 1 < size ? "%02X " : "%02X", bytes[index]);
  return session;
}

TDebugStream& TDebugStream::operator+=(TDebugStream const& other) {
  TLock guard(Lock);
  TLock guard_of_other(other.Lock);
  // By index, and counted first, because a stream may be added to itself.
  auto const count = other.Writers.size();
  Writers.reserve(Writers.size() + count);
  for (std::size_t index = 0; index < count; ++index) Writers.push_back(other.Writers[index]);
  return *this;
}

TDebugStream& TDebugStream::operator+=(SmartPtr<TStreamWriter> writer) {
  AddWriter(std::move(writer));
  return *this;
}

TDebugStreamSession::TDebugStreamSession(TDebugStream& owned) : stream(&owned) {
  stream->Lock.Lock();
}

TDebugStreamSession::TDebugStreamSession(TDebugStreamSession const& other)
    : TDebugStreamSession(*other.stream) {}

TDebugStreamSession::~TDebugStreamSession() noexcept(false) { stream->Lock.Unlock(); }

TDebugStreamSession& TDebugStreamSession::operator<<(bool value) {
  return *this << (value ? "true" : "false");
}

TDebugStreamSession& TDebugStreamSession::operator<<(char value) {
  char const text[] = {value, '\0'};
  stream->WriteString(text, 1);
  return *this;
}

TDebugStreamSession& TDebugStreamSession::operator<<(unsigned char value) {
  return *this << static_cast<unsigned int>(value);
}

TDebugStreamSession& TDebugStreamSession::operator<<(wchar_t value) {
  return *this << std::wstring(1, value);
}

TDebugStreamSession& TDebugStreamSession::operator<<(unsigned short value) {
  return *this << static_cast<unsigned int>(value);
}

TDebugStreamSession& TDebugStreamSession::operator<<(int value) {
  stream->printf("%d", value);
  return *this;
}

TDebugStreamSession& TDebugStreamSession::operator<<(long value) {
  return *this << static_cast<int>(value);
}

TDebugStreamSession& TDebugStreamSession::operator<<(unsigned int value) {
  stream->printf("%u", value);
  return *this;
}

TDebugStreamSession& TDebugStreamSession::operator<<(unsigned long value) {
  return *this << static_cast<unsigned int>(value);
}

TDebugStreamSession& TDebugStreamSession::operator<<(__int64 value) {
  stream->printf("%I64d", value);
  return *this;
}

TDebugStreamSession& TDebugStreamSession::operator<<(unsigned __int64 value) {
  stream->printf("%I64u", value);
  return *this;
}

TDebugStreamSession& TDebugStreamSession::operator<<(double value) {
  stream->printf("%g", value);
  return *this;
}

TDebugStreamSession& TDebugStreamSession::operator<<(char const* text) {
  if (!text) text = "<null>";
  stream->WriteString(text, std::strlen(text));
  return *this;
}

TDebugStreamSession& TDebugStreamSession::operator<<(wchar_t const* text) {
  return text ? *this << as_string(text) : *this << "<null>";
}

TDebugStreamSession& TDebugStreamSession::operator<<(std::string const& text) {
  stream->WriteString(text.data(), text.size());
  return *this;
}

TDebugStreamSession& TDebugStreamSession::operator<<(std::wstring const& text) {
  return *this << as_string(text, 0);
}

// A copy, since writers may need a terminator.
TDebugStreamSession& TDebugStreamSession::operator<<(std::string_view text) {
  return *this << std::string(text);
}

TDebugStreamSession& TDebugStreamSession::operator<<(std::wstring_view text) {
  return *this << as_string(text, 0);
}

TDebugStreamSession& TDebugStreamSession::operator<<(basic_const_string<char> const& text) {
  stream->WriteString(text.data, text.length);
  return *this;
}

TDebugStreamSession& TDebugStreamSession::operator<<(basic_const_string<wchar_t> const& text) {
  return *this << as_string(text, 0);
}

TDebugStreamSession& TDebugStreamSession::operator<<(_bstr_t const& text) {
  return text.length() == 0 ? *this : *this << static_cast<char const*>(text);
}

TDebugStreamSession& TDebugStreamSession::operator<<(_time_t const& time) {
  return *this << time.ctime();
}

// In this order an empty sequence is "<void>". It is "<empty>" only if another thread
// empties it between the two tests.
TDebugStreamSession& TDebugStreamSession::operator<<(_value_t const& value) {
  if (value.size() == 0)
    stream->printf("<void>");
  else if (value.container() && value.size() == 0)
    stream->printf("<empty>");
  else
    stream->printf("%s", value.as_string().c_str());
  return *this;
}

TDebugStreamSession& TDebugStreamSession::operator<<(SmartPtrObj const* object) {
  return object ? *this << object->describe() : *this << "<NULL>";
}

TDebugStreamSession& TDebugStreamSession::operator<<(std::exception const& error) {
  return *this << error.what();
}

// Asks the manipulator itself what it writes, since its address is not the same in
// every module.
TDebugStreamSession& TDebugStreamSession::operator<<(
    std::ostream& (*manipulator)(std::ostream&)) {
  std::ostringstream written;
  manipulator(written);
  return *this << written.str();
}

VELT_LOAD_STEP(debug_stream) TDebugStream Debug(MakeCounted<TDebugWriter>());
VELT_LOAD_STEP(error_stream) TDebugStream Error(
    MakeCounted<TDebugWriter>(), MakeCounted<TConsoleWriter>(false),
    MakeCounted<TFileWriter>("c:\\error.log"));
VELT_LOAD_STEP(console_stream) TDebugStream Console(MakeCounted<TConsoleWriter>(false));
