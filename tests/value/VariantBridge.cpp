// Values as COM variants. What is in a variant is told by the platform, which
// changes it into text.
#include <gtest/gtest.h>
#include <windows.h>

#include <comutil.h>

#include <string>
#include <vector>

#include "tests/support/BadCast.h"
#include "tests/support/DocTables.h"
#include "tests/support/ElementTypes.h"

namespace {

using velt_test::Object;

// A holder of a client's own.
class ForeignHolder : public _value_t_data {
public:
  using _value_t_data::get;

  ForeignHolder(unsigned int its_tag, _bstr_t const& its_text) : tag(its_tag), text(its_text) {}

  std::type_info const& type() const override { return typeid(ForeignHolder); }
  _value_t_data* clone() const override { return new ForeignHolder(tag, text); }
  _value_t_data* to_container() const override { return clone(); }
  bool equal(_value_t_data const&) const override { return false; }
  bool less(_value_t_data const&) const override { return false; }
  unsigned int vartype() const override { return tag; }
  _bstr_t get(_bstr_t const*) const override { return text; }

private:
  unsigned int const tag;
  _bstr_t const text;
};

std::wstring text_by_platform(_variant_t variant) {
  LCID const american = MAKELCID(MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), SORT_DEFAULT);
  _variant_t text;
  auto const result = VariantChangeTypeEx(&text, &variant, american, VARIANT_ALPHABOOL, VT_BSTR);
  return SUCCEEDED(result) ? std::wstring(V_BSTR(&text), SysStringLen(V_BSTR(&text)))
                           : L"refused";
}

struct row {
  _value_t value;
  VARTYPE tag;
  std::wstring text;
};

std::vector<row> rows() {
  return {
      {4.5, VT_R8, L"4.5"},
      {-1e300, VT_R8, L"-1E+300"},
      {_time_t(1078057845), VT_DATE, L"2/29/2004 12:30:45 PM"},
      {_time_t::invalid, VT_DATE, L"12:00:00 AM"},
      {_bstr_t(L"Łódź"), VT_BSTR, L"Łódź"},
      {std::wstring(L"a\0b", 3), VT_BSTR, std::wstring(L"a\0b", 3)},
      {std::wstring(), VT_BSTR, L""},
      {std::string("caf\xE9"), VT_BSTR, L"café"},
      {std::string("up to\0here", 10), VT_BSTR, L"up to"},
      {true, VT_BOOL, L"True"},
      {false, VT_BOOL, L"False"},
      {4'294'967'295ul, VT_UI4, L"4294967295"},
      {_value_t(-9'223'372'036'854'775'807ll - 1), VT_I8, L"-9223372036854775808"},
      {-2'147'483'647 - 1, VT_INT, L"-2147483648"},
  };
}

std::string name_of(VARTYPE tag) {
  switch (tag) {
    case VT_EMPTY: return "VT_EMPTY";
    case VT_R8: return "VT_R8";
    case VT_DATE: return "VT_DATE";
    case VT_BSTR: return "VT_BSTR";
    case VT_BOOL: return "VT_BOOL";
    case VT_UI4: return "VT_UI4";
    case VT_I8: return "VT_I8";
    case VT_INT: return "VT_INT";
    default: return std::to_string(tag);
  }
}

}  // namespace

TEST(VariantBridge, PlatformReadsWhatTheValueHeld) {
  for (auto const& [value, tag, text] : rows()) {
    auto const variant = value.as_variant();
    EXPECT_EQ(V_VT(&variant), tag) << value.as_string();
    EXPECT_EQ(text_by_platform(variant), text);
  }
  EXPECT_EQ(V_BOOL(&static_cast<VARIANT const&>(_value_t(true).as_variant())), -1);
}

TEST(VariantBridge, DocumentationNamesTheTagOfEachType) {
  auto const table = velt_test::doc_table("value.md", "variant");
  ASSERT_EQ(table.size(), 12u);
  for (auto const& type : velt_test::all_element_types()) {
    std::string documented;
    for (auto const& cells : table)
      if (cells[0] == type.name) documented = cells[1];
    _value_t scalar = type.scalar();
    _value_t const constant = scalar;
    for (_value_t const& value : {scalar, _value_t(scalar[0]), constant[0], type.sequence()})
      EXPECT_EQ(name_of(V_VT(&static_cast<VARIANT const&>(value.as_variant()))), documented)
          << type.name;
  }
}

TEST(VariantBridge, SequenceLeavesAsItsFirstElement) {
  EXPECT_EQ(text_by_platform(_value_t(std::vector<int>{7, 8}).as_variant()), L"7");
  EXPECT_EQ(text_by_platform(_value_t(std::vector<std::string>{"a", "b"}).as_variant()), L"a");
  EXPECT_EQ(text_by_platform(_value_t(std::vector<bool>{true, false}).as_variant()), L"True");
}

TEST(VariantBridge, ObjectsStayBehind) {
  SmartPtr<SmartPtrObj> const object(new Object);
  for (auto const& value : {_value_t(object), _value_t(SmartPtr<SmartPtrObj>())}) {
    auto const variant = value.as_variant();
    EXPECT_EQ(V_VT(&variant), VT_EMPTY);
  }
}

TEST(VariantBridge, EmptyValueIsRefused) {
  EXPECT_BAD_CAST(void, _variant_t, _value_t().as_variant());
}

TEST(VariantBridge, TextIsACopyToTheByte) {
  _bstr_t const odd(SysAllocStringByteLen("\1\2\3", 3), false);
  _value_t const value(odd);
  auto const variant = value.as_variant();
  EXPECT_NE(V_BSTR(&variant), static_cast<wchar_t*>(odd));
  ASSERT_EQ(SysStringByteLen(V_BSTR(&variant)), 3u);
  EXPECT_EQ(std::string(reinterpret_cast<char const*>(V_BSTR(&variant)), 3), "\1\2\3");

  auto const null = _value_t(_bstr_t()).as_variant();
  EXPECT_EQ(V_VT(&null), VT_BSTR);
  EXPECT_EQ(V_BSTR(&null), nullptr);
}

TEST(VariantBridge, HoldersOfOtherMakingGoByTheirTag) {
  _bstr_t const text(L"theirs");
  auto const variant = _value_t(new ForeignHolder(VT_BSTR, text)).as_variant();
  EXPECT_EQ(text_by_platform(variant), L"theirs");
  EXPECT_NE(V_BSTR(&variant), static_cast<wchar_t*>(text)) << "the holder still has it";
  auto const unknown = _value_t(new ForeignHolder(VT_CY, text)).as_variant();
  EXPECT_EQ(V_VT(&unknown), VT_EMPTY);
}
