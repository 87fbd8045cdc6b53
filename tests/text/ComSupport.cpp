#include <gtest/gtest.h>

#include <comdef.h>

TEST(ComSupport, NarrowTextBecomesAComStringAndBack) {
  if (GetACP() != 1252) GTEST_SKIP() << "needs code page 1252";
  _bstr_t const text("a\x80");
  EXPECT_STREQ(text, L"a€");
  EXPECT_STREQ(static_cast<char const*>(text), "a\x80");
  EXPECT_EQ(_bstr_t("").length(), 0u);
  EXPECT_FALSE(!_bstr_t(""));
}

TEST(ComSupport, NullStaysNull) {
  EXPECT_EQ(_com_util::ConvertStringToBSTR(nullptr), nullptr);
  EXPECT_EQ(_com_util::ConvertBSTRToString(nullptr), nullptr);
}

TEST(ComSupport, NarrowTextOfAComStringGoesOnBehindNuls) {
  _bstr_t const text(SysAllocStringLen(L"a\0b", 3), false);
  EXPECT_EQ(std::string(text, 4), std::string("a\0b\0", 4));
}
