// The examples of docs/value.md.
#include "tests/support/DocExamples.h"

#include <gtest/gtest.h>

#include <comutil.h>

#include "velt/exceptions/EGeneric.h"
#include "velt/value/Value.h"

TEST(ValueDocumentation, ReadsAndWritesByItsType) {
  _value_t port = 8080;
  int const number = port;                    // strict: the held type, or what a table allows
  std::string const text = port.as_string();  // lenient: "8080"

  port = 8081;                                // a value keeps its type...
  try {
    port = "http";                            // ...so this throws EBadCastException
  } catch (EBadCastException const& error) {
    std::string const from = error["From"], to = error["To"];
  }
  EXPECT_EQ(number, 8080);
  EXPECT_EQ(text, "8080");
  EXPECT_EQ(port, 8081);
}

TEST(ValueDocumentation, GrowsIntoASequence) {
  _value_t names;
  names.push_back(std::string("alpha"));
  names.push_back(std::string("beta"));                // a sequence of two
  std::vector<std::string> const all = names;
  std::string const list = names.as_string();          // "{alpha,beta}"
  EXPECT_EQ(all, (std::vector<std::string>{"alpha", "beta"}));
  EXPECT_EQ(list, "{alpha,beta}");
}

TEST(ValueDocumentation, WritesThroughViews) {
  _value_t v = std::vector<int>{1, 2, 3};
  _value_t shared = v;
  v[0] = 9;                                   // both are now {9,2,3}
  _value_t element = v[1];
  _value_t copy = element;
  copy = 7;                                   // a copy of a view detaches: v stays {9,2,3}
  EXPECT_EQ(v.as_string(), "{9,2,3}");
  EXPECT_EQ(shared.as_string(), "{9,2,3}");
}

TEST(ValueDocumentation, LeavesAsAVariant) {
  _value_t const due = _time_t::mktime("2004-02-29T12:30:45");
  _variant_t const date = due.as_variant();   // VT_DATE, 38046.5213...
  _time_t const back(date, true);             // true: the date is UTC
  EXPECT_NEAR(V_DATE(&date), 38046.5213, 0.0001);
  EXPECT_EQ(back.iso8601time(), "2004-02-29T12:30:45.000");
}

TEST(ValueDocumentation, ExamplesAreThese) {
  velt_test::expect_doc_examples_run("value.md", __FILE__);
}
