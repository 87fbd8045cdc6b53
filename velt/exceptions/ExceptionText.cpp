#include <windows.h>

#include <charconv>
#include <cstdint>
#include <mutex>
#include <string>
#include <typeinfo>

#include "velt/exceptions/EGeneric.h"
#include "velt/faults/StackOverflowException.h"
#include "velt/value/HoldersInternal.h"

namespace {

// The platform's own section, since the locks of the library stand on exceptions.
// It is recursive, since the text of a value may come from what() of another
// exception.
class buffer_lock {
public:
  buffer_lock() noexcept { InitializeCriticalSection(&section); }
  ~buffer_lock() { DeleteCriticalSection(&section); }
  buffer_lock(buffer_lock const&) = delete;
  buffer_lock& operator=(buffer_lock const&) = delete;

  void lock() noexcept { EnterCriticalSection(&section); }
  void unlock() noexcept { LeaveCriticalSection(&section); }

private:
  CRITICAL_SECTION section;
};

// The one buffer of all exceptions: an exception carries no text of its own.
struct shared_text {
  buffer_lock lock;
  std::string buffer;
};

shared_text& the_text() {
  static shared_text text;
  return text;
}

void append_hexadecimal(std::string& text, std::uint32_t pattern) {
  char digits[8];
  auto const end = std::to_chars(digits, digits + sizeof digits, pattern, 16).ptr;
  text.append(" (0x").append(digits, end).append(")");
}

void append_value(std::string& text, _value_t const& value) {
  if (auto const held = velt::detail::own_element<std::string>(value.holder())) {
    text += *held;  // the same text as as_string(), without a copy
    return;
  }
  if (value.size() == 0) return;
  text += value.as_string();
  if (value.type() == typeid(int) || value.type() == typeid(unsigned long))
    append_hexadecimal(text, static_cast<std::uint32_t>(value.get<int>()));
}

// what() must not throw, so a value that cannot be printed leaves its place empty.
void append_value_or_nothing(std::string& text, _value_t const& value) {
  auto const length = text.size();
  try {
    append_value(text, value);
  } catch (EStackOverflowException const&) {
    throw;
  } catch (...) {
    text.resize(length);
  }
}

std::string text_or_nothing(_value_t const& value) {
  try {
    return value.get<std::string>();
  } catch (EStackOverflowException const&) {
    throw;
  } catch (...) {
    return std::string();
  }
}

// Null if it cannot be made. Not a part of what(), which has no handlers of its own
// then, so that an overflow of the stack leaves it although it is noexcept: only
// the caller's handler can give the stack its guard back.
[[gnu::noinline]] char const* text_of(std::vector<EGeneric::named_value> const& list) try {
  auto& text = the_text();
  std::lock_guard const guard(text.lock);
  auto& buffer = text.buffer;
  if (list.size() == 1 && list.front().first == "Text") {
    buffer = text_or_nothing(list.front().second);
    return buffer.c_str();
  }
  buffer.clear();
  for (auto const& [name, value] : list) {
    if (&name != &list.front().first) buffer += '\n';
    buffer.append(name).append(": ");
    append_value_or_nothing(buffer, value);
  }
  return buffer.c_str();
} catch (EStackOverflowException const&) {
  throw;
} catch (...) {
  return nullptr;
}

}  // namespace

char const* EGeneric::what() const noexcept {
  auto const text = text_of(list);
  return text ? text : std::exception::what();
}
