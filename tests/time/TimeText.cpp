#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <random>
#include <string>

#include "velt/time/Time.h"

namespace {

__int64 const last_second_of_3000 = 32'535'215'999;

// The text form by the run time's scanner and formatter, which the library's
// own must not be told from.
__int64 scanned(std::string const& text) {
  tm record{};
  if (sscanf_s(text.c_str(), "%d-%d-%dT%d:%d:%d.000", &record.tm_year, &record.tm_mon,
               &record.tm_mday, &record.tm_hour, &record.tm_min, &record.tm_sec) != 6)
    return -1;
  record.tm_year = static_cast<int>(static_cast<unsigned>(record.tm_year) - 1900);
  record.tm_mon = static_cast<int>(static_cast<unsigned>(record.tm_mon) - 1);
  return _mkgmtime64(&record);
}

std::string formatted(__int64 t) {
  tm record;
  _gmtime64_s(&record, &t);
  char buffer[32] = {};
  strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S.000", &record);
  return buffer;
}

struct Samples {
  std::mt19937_64 random{4};

  __int64 pick(__int64 low, __int64 high) {
    return std::uniform_int_distribution<__int64>(low, high)(random);
  }

  // A good text in which up to three characters were changed, added or lost.
  std::string damaged_text() {
    std::string text = formatted(pick(0, last_second_of_3000));
    static char const alphabet[] = "0123456789-+:T. \t\n\v\rtZx\xA0";
    for (auto count = pick(0, 3); count > 0; --count) {
      auto const place = static_cast<std::size_t>(pick(0, static_cast<__int64>(text.size()) - 1));
      char const c = alphabet[pick(0, sizeof alphabet - 1)];
      switch (pick(0, 2)) {
        case 0: text[place] = c; break;
        case 1: text.insert(place, 1, c); break;
        default: text.erase(place, 1);
      }
    }
    return text;
  }

  // Six numbers, each now and then far out of its range or oddly written.
  std::string odd_numbers() {
    std::string text;
    char const* separators[] = {"", "-", "-", "T", ":", ":"};
    int const usual[] = {2004, 2, 29, 12, 30, 45};
    for (int i = 0; i < 6; ++i) {
      text += separators[i];
      if (pick(0, 3) == 0) text += " ";
      if (pick(0, 5) == 0) text += "+";
      if (pick(0, 3) == 0) text += "000";
      text += std::to_string(pick(0, 7) == 0 ? pick(-100'000'000'000, 100'000'000'000)
                                             : usual[i] + pick(-30, 30));
    }
    return text;
  }
};

}  // namespace

TEST(TimeText, WritesAndReadsEverySecondOfTheRunTimesRange) {
  Samples samples;
  for (int i = 0; i < 100'000; ++i) {
    _time_t const t(samples.pick(0, last_second_of_3000));
    auto const text = t.iso8601time();
    ASSERT_EQ(text, formatted(t));
    ASSERT_EQ(_time_t::mktime(text), t) << text;
  }
}

TEST(TimeText, ReadsDamagedTextAndNumbersOutOfRangeAsTheRunTimesScannerDoes) {
  Samples samples;
  int refused = 0;
  int const count = 100'000;
  for (int i = 0; i < count; ++i) {
    auto const text = samples.damaged_text();
    auto const t = _time_t::mktime(text);
    refused += !t.valid();
    ASSERT_EQ(t, scanned(text)) << text;
    auto const numbers = samples.odd_numbers();
    ASSERT_EQ(_time_t::mktime(numbers), scanned(numbers)) << numbers;
  }
  // The sample is worth something only if it has plenty of both kinds.
  EXPECT_GT(refused, count / 10);
  EXPECT_LT(refused, count * 9 / 10);
}

TEST(TimeText, TextsThatPeopleWrite) {
  struct {
    char const* text;
    __int64 expected;
  } const rows[] = {
      {"2004-02-29T12:30:45.000", 1078057845},
      {"2004-02-29T12:30:45.999", 1078057845},
      {" 2004- 2- 29T 12: 30: 45Z", 1078057845},
      {"2004-02-29 12:30:45.000", -1},
      {"", -1},
      {"1950-01-01T00:00:00", -1},
      {"<invalid time>", -1},
  };
  for (auto const& row : rows) EXPECT_EQ(_time_t::mktime(row.text), row.expected) << row.text;
  EXPECT_EQ(_time_t::mktime(std::string("2004-02-29T12:30:4\0005", 20)), 1078057804);
}
