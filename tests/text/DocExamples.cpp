// The examples of docs/text.md, run.
#include <gtest/gtest.h>

#include <comdef.h>

#include "tests/support/DocExamples.h"
#include "velt/text/Case.h"
#include "velt/text/CharacterClasses.h"
#include "velt/text/Encoding.h"
#include "velt/text/Format.h"
#include "velt/text/Numbers.h"
#include "velt/text/Splitting.h"
#include "velt/text/Trim.h"

namespace {

// example
std::string setting_line(std::string const& name, std::string const& value) {
  auto const key = strlower(trim(name, " \t"));
  auto const text = trim(value, " \t");
  if (isdigit(text)) return format_string("%s=0x%s", key.c_str(), itoa(atoi(text), 16).c_str());
  return format_string("%s=\"%s\"", key.c_str(), text.c_str());
}

_bstr_t title(_bstr_t const& name, int count) {
  return format_bstr(L"%s (%d)", static_cast<wchar_t const*>(strupper(trim(name, L" "))), count);
}

std::string with_module(std::string const& setting, std::string const& module) {
  std::set<std::string> modules;
  divide_string(setting, modules, ";");
  modules.insert(module);
  std::string result;
  consolidate_string(modules, result, ";");
  return result;
}
// end of example

}  // namespace

TEST(DocExamples, TextPage) {
  EXPECT_EQ(setting_line(" Port\t", "255 "), "port=0xff");
  EXPECT_EQ(setting_line("Host", " example "), "host=\"example\"");
  EXPECT_STREQ(title(L" größe ", 3), L"GRÖßE (3)");
  EXPECT_EQ(as_string(L"größe", 65001), "gr\xC3\xB6\xC3\x9F" "e");
  EXPECT_EQ(with_module("user32;\"a;b\";;user32", "gdi32"), "\"a;b\";gdi32;user32");
  velt_test::expect_doc_examples_run("text.md", __FILE__);
}
