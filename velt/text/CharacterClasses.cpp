#include "velt/text/CharacterClasses.h"

#include "velt/text/UserLocaleInternal.h"

namespace {

bool all_of_class(std::string const& text, std::ctype_base::mask mask) {
  auto const last = text.data() + text.size();
  return !text.empty() &&
         velt::detail::user_ctype<char>().scan_not(mask, text.data(), last) == last;
}

}  // namespace

bool isdigit(std::string const& text) { return all_of_class(text, std::ctype_base::digit); }
bool isxdigit(std::string const& text) { return all_of_class(text, std::ctype_base::xdigit); }
bool isalpha(std::string const& text) { return all_of_class(text, std::ctype_base::alpha); }
bool isalnum(std::string const& text) { return all_of_class(text, std::ctype_base::alnum); }
