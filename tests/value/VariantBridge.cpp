// Values as COM variants. What is in a variant is told by the platform, which
// changes it into text.
#include <gtest/gtest.h>
#include <windows.h>

#include <comutil.h>

#include <map>

#include "tests/support/DocTables.h"
#include "tests/support/ElementTypes.h"
#include "tests/support/Expect.h"

namespace {

_bstr_t text_by_platform(_variant_t variant) {
  constexpr LCID american = 0x409;
  _variant_t text;
  auto const result = VariantChangeTypeEx(&text, &variant, american, VARIANT_ALPHABOOL, VT_BSTR);
  return SUCCEEDED(result) ? _bstr_t(V_BSTR(&text)) : L"refused";
}

}  // namespace

TEST(VariantBridge, PlatformReadsWhatTheValueHeld) {
  struct {
    _value_t value;
    VARTYPE tag;
    wchar_t const* text;
  } const rows[] = {
      {4.5, VT_R8, L"4.5"},
      {_time_t(1078057845), VT_DATE, L"2/29/2004 12:30:45 PM"},
      {_bstr_t(L"Łódź"), VT_BSTR, L"Łódź"},
      {std::string("caf\xE9\0here", 9), VT_BSTR, L"café"},
      {true, VT_BOOL, L"True"},
      {4'294'967'295ul, VT_UI4, L"4294967295"},
      {-9'223'372'036'854'775'807ll - 1, VT_I8, L"-9223372036854775808"},
      {std::vector<int>{-2'147'483'647 - 1, 8}, VT_INT, L"-2147483648"},
  };
  for (auto const& [value, tag, text] : rows) {
    auto const variant = value.as_variant();
    EXPECT_EQ(V_VT(&variant), tag) << value.as_string();
    EXPECT_EQ(text_by_platform(variant), _bstr_t(text));
  }
  EXPECT_EQ(_value_t(true).as_variant().boolVal, -1);
  EXPECT_BAD_CAST(void, _variant_t, _value_t().as_variant());
}

TEST(VariantBridge, DocumentationNamesTheTagOfEachType) {
  std::map<std::string, VARTYPE> const tags = {
      {"VT_EMPTY", VT_EMPTY}, {"VT_R8", VT_R8},   {"VT_DATE", VT_DATE}, {"VT_BSTR", VT_BSTR},
      {"VT_BOOL", VT_BOOL},   {"VT_UI4", VT_UI4}, {"VT_I8", VT_I8},     {"VT_INT", VT_INT}};
  std::map<std::string, std::string> documented;
  for (auto const& row : velt_test::doc_table("value.md", "variant")) documented[row[0]] = row[1];
  for (auto const& type : velt_test::all_element_types()) {
    _value_t scalar = type.scalar();
    _value_t const constant = scalar;
    for (_value_t const& value : {scalar, _value_t(scalar[0]), constant[0], type.sequence()})
      EXPECT_EQ(value.as_variant().vt, tags.at(documented.at(type.name))) << type.name;
  }
}

TEST(VariantBridge, TextIsACopyToTheByte) {
  _bstr_t const odd(SysAllocStringByteLen("\1\0\3", 3), false);
  auto const variant = _value_t(odd).as_variant();
  EXPECT_NE(V_BSTR(&variant), static_cast<wchar_t*>(odd));
  ASSERT_EQ(SysStringByteLen(V_BSTR(&variant)), 3u);
  EXPECT_EQ(std::string(reinterpret_cast<char const*>(V_BSTR(&variant)), 3),
            std::string("\1\0\3", 3));

  auto const wide = _value_t(std::wstring(L"a\0b", 3)).as_variant();
  EXPECT_EQ(SysStringLen(V_BSTR(&wide)), 3u);
  auto const null = _value_t(_bstr_t()).as_variant();
  EXPECT_EQ(V_VT(&null), VT_BSTR);
  EXPECT_EQ(V_BSTR(&null), nullptr);
}
