#include "velt/text/UserLocaleInternal.h"

#include <windows.h>

#include <algorithm>
#include <array>

#include "velt/base/LoadOrderInternal.h"

namespace {

using mask = std::ctype_base::mask;

constexpr bool is_ascii(wchar_t character) { return character < 0x80; }

mask from_platform(WORD type) {
  constexpr struct {
    WORD platform;
    mask standard;
  } classes[] = {
      {C1_UPPER, std::ctype_base::upper | std::ctype_base::alpha},
      {C1_LOWER, std::ctype_base::lower | std::ctype_base::alpha},
      {C1_ALPHA, std::ctype_base::alpha},
      {C1_DIGIT, std::ctype_base::digit},
      {C1_XDIGIT, std::ctype_base::xdigit},
      {C1_SPACE, std::ctype_base::space},
      {C1_BLANK, std::ctype_base::blank},
      {C1_PUNCT, std::ctype_base::punct},
      {C1_CNTRL, std::ctype_base::cntrl},
  };
  mask result = 0;
  for (auto const& each : classes)
    if (type & each.platform) result |= each.standard;
  bool const visible = type & (C1_UPPER | C1_LOWER | C1_ALPHA | C1_DIGIT | C1_PUNCT);
  bool const gap = (type & C1_BLANK) && !(type & C1_CNTRL);
  if (visible || gap) result |= std::ctype_base::print;
  return result;
}

mask class_of(wchar_t character) {
  WORD type = 0;
  GetStringTypeW(CT_CTYPE1, &character, 1, &type);
  return from_platform(type);
}

// Lower and upper case by the platform's rules for the user's locale, whose name is
// looked up once.
class user_casing {
public:
  user_casing() {
    if (GetUserDefaultLocaleName(name, LOCALE_NAME_MAX_LENGTH) == 0) name[0] = L'\0';
  }

  // In place, each character by itself. Text that the platform refuses stays as it is.
  void change_case(DWORD flag, wchar_t* first, wchar_t const* last) const {
    constexpr std::ptrdiff_t longest = 1 << 30;
    while (first != last) {
      auto const length = static_cast<int>(std::min(last - first, longest));
      LCMapStringEx(name, flag, first, length, first, length, nullptr, nullptr, 0);
      first += length;
    }
  }

  wchar_t in_case(DWORD flag, wchar_t character) const {
    change_case(flag, &character, &character + 1);
    return character;
  }

private:
  wchar_t name[LOCALE_NAME_MAX_LENGTH];
};

// UTF-8 and GB18030 have every character. The platform refuses to be asked
// whether one of theirs was replaced.
bool has_every_character(UINT code_page) {
  constexpr UINT gb18030 = 54936;
  return code_page == CP_UTF8 || code_page == gb18030;
}

// The byte of the system's code page for a character; `otherwise` if it has none or
// needs several.
char narrowed(wchar_t character, char otherwise) {
  static bool const never_replaced = has_every_character(GetACP());
  char bytes[8];
  BOOL replaced = FALSE;
  int const count =
      WideCharToMultiByte(CP_ACP, never_replaced ? 0 : WC_NO_BEST_FIT_CHARS, &character, 1, bytes,
                          sizeof bytes, nullptr, never_replaced ? nullptr : &replaced);
  return count == 1 && !replaced ? bytes[0] : otherwise;
}

// Classes and cases of the 256 bytes of the system's code page, as the platform tells
// them. A byte that is no character by itself is of no class and has no other case.
struct byte_tables {
  explicit byte_tables(user_casing const& casing) {
    for (std::size_t index = 0; index < 256; ++index) {
      auto const byte = static_cast<char>(index);
      lower_of[index] = upper_of[index] = byte;
      wchar_t wide;
      if (MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, &byte, 1, &wide, 1) != 1) continue;
      classes[index] = class_of(wide);
      lower_of[index] = narrowed(casing.in_case(LCMAP_LOWERCASE, wide), byte);
      upper_of[index] = narrowed(casing.in_case(LCMAP_UPPERCASE, wide), byte);
    }
  }

  using mapping = std::array<char, 256>;
  std::array<mask, 256> classes = {};
  mapping lower_of;
  mapping upper_of;
};

// The tables are a base class, so that they exist before std::ctype takes them.
class narrow_facet : byte_tables, public std::ctype<char> {
public:
  explicit narrow_facet(user_casing const& casing)
      : byte_tables(casing), std::ctype<char>(classes.data()) {}

protected:
  char do_tolower(char byte) const override { return mapped(lower_of, byte); }
  char do_toupper(char byte) const override { return mapped(upper_of, byte); }
  char const* do_tolower(char* first, char const* last) const override {
    return map(lower_of, first, last);
  }
  char const* do_toupper(char* first, char const* last) const override {
    return map(upper_of, first, last);
  }

private:
  static char mapped(mapping const& table, char byte) {
    return table[static_cast<unsigned char>(byte)];
  }
  static char const* map(mapping const& table, char* first, char const* last) {
    for (; first != last; ++first) *first = mapped(table, *first);
    return last;
  }
};

class wide_facet : public std::ctype<wchar_t> {
public:
  explicit wide_facet(user_casing const& rules) : casing(rules) {}

protected:
  bool do_is(mask wanted, wchar_t character) const override {
    return (class_at(character) & wanted) != 0;
  }
  wchar_t const* do_is(wchar_t const* first, wchar_t const* last, mask* out) const override {
    std::transform(first, last, out, class_at);
    return last;
  }
  wchar_t const* do_scan_is(mask wanted, wchar_t const* first, wchar_t const* last) const override {
    return std::find_if(first, last, [=, this](wchar_t each) { return do_is(wanted, each); });
  }
  wchar_t const* do_scan_not(mask wanted, wchar_t const* first,
                             wchar_t const* last) const override {
    return std::find_if_not(first, last, [=, this](wchar_t each) { return do_is(wanted, each); });
  }

  wchar_t do_tolower(wchar_t character) const override {
    do_tolower(&character, &character + 1);
    return character;
  }
  wchar_t do_toupper(wchar_t character) const override {
    do_toupper(&character, &character + 1);
    return character;
  }
  wchar_t const* do_tolower(wchar_t* first, wchar_t const* last) const override {
    return map<L'A', L'Z', LCMAP_LOWERCASE>(first, last);
  }
  wchar_t const* do_toupper(wchar_t* first, wchar_t const* last) const override {
    return map<L'a', L'z', LCMAP_UPPERCASE>(first, last);
  }

private:
  static mask class_at(wchar_t character) {
    return is_ascii(character) ? std::ctype<char>::classic_table()[character]
                               : class_of(character);
  }

  // The platform is called from the first character on that needs it.
  template <wchar_t low, wchar_t high, DWORD flag>
  wchar_t const* map(wchar_t* first, wchar_t const* last) const {
    for (; first != last && is_ascii(*first); ++first)
      if (*first >= low && *first <= high) *first ^= L' ';
    casing.change_case(flag, first, last);
    return last;
  }

  user_casing casing;
};

// The locale that the environment names is not asked for: this compiler's standard library
// knows only "C", and throws for any other name, at which debuggers stop.
std::locale make_user_locale() {
  user_casing const casing;
  return std::locale(std::locale(std::locale::classic(), new narrow_facet(casing)),
                     new wide_facet(casing));
}

struct locale_and_facets {
  std::locale const locale = make_user_locale();
  std::ctype<char> const& narrow = std::use_facet<std::ctype<char>>(locale);
  std::ctype<wchar_t> const& wide = std::use_facet<std::ctype<wchar_t>>(locale);
};

// A function, so that static objects of other sources find the locale built.
locale_and_facets const& the_user_locale() {
  static locale_and_facets const instance;
  return instance;
}

VELT_LOAD_STEP(locale_of_user) velt::detail::build_now const locale_built(the_user_locale);

}  // namespace

namespace velt::detail {

std::locale const& user_locale() { return the_user_locale().locale; }

template <>
std::ctype<char> const& user_ctype<char>() {
  return the_user_locale().narrow;
}

template <>
std::ctype<wchar_t> const& user_ctype<wchar_t>() {
  return the_user_locale().wide;
}

}  // namespace velt::detail
