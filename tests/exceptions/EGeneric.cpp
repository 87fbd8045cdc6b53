#include "velt/exceptions/EGeneric.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>

#include "velt/exceptions/ExceptionFamily.h"

static_assert(sizeof(EGeneric) == sizeof(std::exception) + sizeof(std::vector<int>),
              "the list is the only field");
static_assert(sizeof(EBadCastException) == sizeof(EGeneric));
static_assert(!std::is_base_of_v<std::exception, EThreadInterrupt> &&
              sizeof(EThreadInterrupt) == 1);

TEST(EGeneric, FindsNamesWhateverTheirAsciiCase) {
  EGeneric exception({"text", "found"}, {"\xC4", "capital"}, {"TEXT", "never seen"});
  EXPECT_EQ(exception.get_value("Text").as_string(), "found");
  EXPECT_TRUE(exception.get_value("\xE4").empty()) << "only the 26 letters are folded";
  EXPECT_TRUE(exception.get_value("tex").empty());
  EXPECT_TRUE(exception.get_value("[").empty());

  exception.put_value("TexT", 5);
  exception.put_value("new", 6);
  EXPECT_TRUE(std::as_const(exception)["absent"].empty());
  EXPECT_STREQ(exception.what(), "text: 5 (0x5)\n\xC4: capital\nTEXT: never seen\nnew: 6 (0x6)");
  exception["absent"];
  EXPECT_EQ(exception.values().size(), 5u) << "indexing adds the name unless const";
}

TEST(EGeneric, TakesValuesOfItsOwnListAlsoAsItGrows) {
  EGeneric exception({"first", "kept"});
  for (int i = 0; i < 10; ++i) {
    auto const name = "name" + std::to_string(i);
    exception.put_value(name, exception["first"]);
    EXPECT_EQ(exception[name], "kept");
  }
}

TEST(EGeneric, MovingToTheBackSwapsWithTheLast) {
  struct Family : EGeneric {
    using EGeneric::EGeneric;
    using EGeneric::move_to_back;
  };
  Family exception({"a", true}, {"b", true}, {"c", true});
  exception.move_to_back("A");
  exception.move_to_back("a");
  exception.move_to_back("absent");
  EXPECT_STREQ(exception.what(), "c: true\nb: true\na: true");
}

TEST(EBadCastException, NamesTheTypes) {
  EBadCastException const error(typeid(int), typeid(std::exception), typeid(EGeneric));
  EXPECT_STREQ(error.what(), "Text: Bad cast\nFrom: int\nTo: std::exception\nRealType: EGeneric");
  EXPECT_EQ(EBadCastException(typeid(void), typeid(double)).values().size(), 3u);
}

TEST(ExceptionText, SingleTextStandsAlone) {
  EXPECT_STREQ(EGeneric().what(), "");
  EXPECT_STREQ(EGeneric({"Text", L"Gr\u00FCn"}).what(), "Gr\xFCn");
  EXPECT_STREQ(EGeneric({"Text", 5}).what(), "") << "an int does not read strictly as text";
  EXPECT_STREQ(EGeneric({"text", "small"}).what(), "text: small");
  EXPECT_STREQ(EGeneric({"Text", "a"}, {"text", "b"}).what(), "Text: a\ntext: b");
}

TEST(ExceptionText, ShowsNumbersOfThirtyTwoBitsInBothForms) {
  EGeneric const exception({"n", 255ul}, {"i", -1073741819}, {"w", 255ll}, {"b", true},
                           {"s", std::vector<int>{16, 17}}, {"t", "x"});
  EXPECT_STREQ(exception.what(),
               "n: 255 (0xff)\ni: -1073741819 (0xc0000005)\nw: 255\nb: true\n"
               "s: {16,17} (0x10)\nt: x");
}

TEST(ExceptionText, ValueThatCannotBePrintedLeavesItsPlaceEmpty) {
  struct Mute : virtual SmartPtrObj {
    std::string describe() const override { throw 1; }
  };
  EGeneric const exception({"first", 1ll}, {"mute", new Mute}, {"none", _value_t()},
                           {"empty", std::vector<int>()}, {"last", 2ll});
  EXPECT_STREQ(exception.what(), "first: 1\nmute: \nnone: \nempty: \nlast: 2");
  EXPECT_STREQ(EGeneric({"x", 1ll}).what(), "x: 1") << "the lock was released";
}

TEST(ExceptionText, OneBufferServesAllExceptionsAndThreads) {
  EGeneric const first({"Text", "first"}), second({"Text", "second"});
  char const* const text = first.what();
  EXPECT_EQ(second.what(), text);
  EXPECT_STREQ(text, "second");
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([] {
      EGeneric const exception({"Code", 5}, {"Text", std::string(100, 'x')});
      for (int n = 0; n < 5'000; ++n) (void)exception.what();
    });
}
