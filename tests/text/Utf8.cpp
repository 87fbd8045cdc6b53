// Loads the library on a platform whose ANSI code page is UTF-8, and which refuses to
// be asked whether a character was replaced, as every platform may for that page.
#include <cstdio>
#include <string>

#include "tests/support/Imports.h"

int main() {
  using velt_test::Replacement;
  auto const velt = velt_test::load_velt([] {
    static Replacement const page{VELT_CALL(GetACP), [](auto) -> UINT { return CP_UTF8; }};
    static Replacement const wide{
        VELT_CALL(MultiByteToWideChar),
        [](auto platform, UINT, auto... arguments) { return platform(CP_UTF8, arguments...); }};
    static Replacement const narrow{
        VELT_CALL(WideCharToMultiByte),
        [](auto platform, UINT, DWORD flags, auto text, int length, char* bytes, int size,
           auto fallback, BOOL* replaced) {
          if (flags || fallback || replaced) return 0;
          return platform(CP_UTF8, 0, text, length, bytes, size, nullptr, nullptr);
        }};
  });
  auto const upper = reinterpret_cast<std::string (*)(std::string const&)>(reinterpret_cast<void*>(
      GetProcAddress(velt, "_Z8strupperRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE")));
  auto const text = upper("aBz \xC3\xA4");
  std::puts(text.c_str());
  return text == "ABZ \xC3\xA4" ? 0 : 1;  // bytes that are no characters by themselves stay
}
