// The examples of docs/value.md.
#include <gtest/gtest.h>

#include "velt/exceptions/EGeneric.h"
#include "velt/value/Value.h"

TEST(ValueDocumentation, FirstExample) {
  _value_t port = 8080;
  int const number = port;
  std::string const text = port.as_string();
  EXPECT_EQ(number, 8080);
  EXPECT_EQ(text, "8080");

  port = 8081;
  EXPECT_EQ(port, 8081);
  try {
    port = "http";
    FAIL() << "did not throw";
  } catch (EBadCastException const& error) {
    std::string const from = error["From"], to = error["To"];
    EXPECT_NE(from.find("string"), std::string::npos);
    EXPECT_EQ(to, "int");
  }

  _value_t names;
  names.push_back(std::string("alpha"));
  names.push_back(std::string("beta"));
  std::vector<std::string> const all = names;
  std::string const list = names.as_string();
  EXPECT_EQ(all, (std::vector<std::string>{"alpha", "beta"}));
  EXPECT_EQ(list, "{alpha,beta}");
}

TEST(ValueDocumentation, ViewsExample) {
  _value_t v = std::vector<int>{1, 2, 3};
  _value_t shared = v;
  v[0] = 9;
  EXPECT_EQ(v.as_string(), "{9,2,3}");
  EXPECT_EQ(shared.as_string(), "{9,2,3}");
  _value_t element = v[1];
  _value_t copy = element;
  copy = 7;
  EXPECT_EQ(v.as_string(), "{9,2,3}");
}
