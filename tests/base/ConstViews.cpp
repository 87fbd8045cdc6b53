#include <gmock/gmock.h>

#include <stdexcept>

#include "velt/base/ConstArray.h"
#include "velt/base/ConstString.h"

static_assert(offsetof(basic_const_string<char>, data) == 0);
static_assert(offsetof(basic_const_string<char>, length) == 8);
static_assert(offsetof(const_array<int>, count) == 0);
static_assert(offsetof(const_array<int>, data) == 8);

TEST(ConstString, OnlyTerminatedTextHasAnEnd) {
  std::string const text("abc\0def", 7);
  EXPECT_EQ(basic_const_string<char>(text).c_str(), text.data());
  EXPECT_EQ(basic_const_string<char>(text).length, 7u);
  EXPECT_EQ(basic_const_string<char>("abc").length, 3u);
  EXPECT_THAT([] { (void)basic_const_string<char>("abcdef", 3).c_str(); },
              testing::ThrowsMessage<std::logic_error>("Invalid _data of const_string for c_str()"));
}
