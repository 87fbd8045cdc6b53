#include "Terminal.h"

#include <windows.h>

#include <algorithm>
#include <climits>
#include <iterator>

#include "velt/exceptions/ExceptionFamily.h"
#include "velt/text/Encoding.h"

namespace {

constexpr int longest_message = 320;

struct character {
  char32_t code;
  std::size_t units;  // of UTF-16
};

character character_at(std::wstring const& text, std::size_t place) {
  char32_t const first = text[place];
  if ((first & 0xFC00) != 0xD800 || place + 1 == text.size()) return {first, 1};
  return {0x10000 + ((first & 0x3FF) << 10) + (text[place + 1] & 0x3FF), 2};
}

int columns(char32_t code) {
  struct range {
    char32_t first, last;
  };
  static constexpr range combining[] = {
      {0x300, 0x36F}, {0x200B, 0x200F}, {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}};
  static constexpr range wide[] = {{0x1100, 0x115F}, {0x2E80, 0xA4CF},   {0xAC00, 0xD7A3},
                                   {0xF900, 0xFAFF}, {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
                                   {0xFFE0, 0xFFE6}, {0x1F300, 0x1FAFF}, {0x20000, 0x3FFFD}};
  auto const holds = [code](range r) { return r.first <= code && code <= r.last; };
  if (std::ranges::any_of(combining, holds)) return 0;
  return std::ranges::any_of(wide, holds) ? 2 : 1;
}

struct extent {
  std::size_t units;
  int columns;
};

// The longest beginning of the text that takes at most `width` columns.
extent fitting(std::wstring const& text, int width) {
  extent sum{};
  while (sum.units < text.size()) {
    auto const next = character_at(text, sum.units);
    int const taken = columns(next.code);
    if (taken > width - sum.columns) break;
    sum = {sum.units + next.units, sum.columns + taken};
  }
  return sum;
}

wchar_t visible(wchar_t c) {
  if (c < 0x20) return static_cast<wchar_t>(0x2400 + c);  // symbols for control codes
  return c >= 0x7F && c < 0xA0 ? L'\xFFFD' : c;
}

// The exception's value of this name, followed by `end`; nothing if it has none.
std::wstring known(EGeneric const& error, char const* name, wchar_t const* end) {
  auto const value = error[name];
  return value.empty() ? std::wstring() : value.as_wstring() + end;
}

}  // namespace

int columns(std::wstring const& text) { return fitting(text, INT_MAX).columns; }

std::wstring clipped(std::wstring const& text, int width) {
  std::wstring shown;
  std::ranges::transform(text, std::back_inserter(shown), visible);
  if (fitting(shown, width).units == shown.size()) return shown;
  return shown.substr(0, fitting(shown, width - 1).units) + L"…";
}

std::wstring padded(std::wstring const& text, int width) {
  auto const shown = clipped(text, width);
  return shown + std::wstring(width - columns(shown), L' ');
}

std::wstring heading(std::wstring const& about, std::wstring const& more) {
  auto const left = clipped(about, report_width - columns(more) - 4);
  auto const rule = report_width - columns(left) - columns(more) - 2;
  return left + L' ' + std::wstring(rule, L'─') + L' ' + more;
}

void write(stream target, std::wstring const& text) {
  bool const to_output = target == stream::output;
  HANDLE const handle = GetStdHandle(to_output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
  DWORD mode = 0, written = 0;
  bool done = false;
  if (GetConsoleMode(handle, &mode)) {
    done = WriteConsoleW(handle, text.data(), DWORD(text.size()), &written, nullptr);
  } else {
    auto const bytes = as_string(text, CP_UTF8);
    done = WriteFile(handle, bytes.data(), DWORD(bytes.size()), &written, nullptr);
  }
  if (!done)
    throw ESystemException(GetLastError(),
                           {"File", to_output ? "standard output" : "standard error"});
}

void complain(std::wstring const& message) {
  try {
    write(stream::error, clipped(message, longest_message) + L'\n');
  } catch (ESystemException const&) {
  }
}

void complain(std::wstring const& program, EGeneric const& error) {
  complain(program + L": " + known(error, "File", L": ") + known(error, "Text", L""));
}
