#include "velt/debug/DebugStream.h"

#include <comdef.h>

#include <fstream>
#include <iterator>
#include <ctime>
#include <limits>
#include <string_view>

#include "Support.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/time/Stopwatches.h"

using namespace velt_test;
using namespace std::string_view_literals;

VELT_WATCH(ReleaseMutex, WaitForSingleObjectEx);

namespace {

struct Stream : ::testing::Test {
  // The destructor of a stream may throw, that of a test must not.
  ~Stream() noexcept override {}

  // What the statement wrote.
  template <class Statement>
  std::string written(Statement statement) {
    writer->texts.clear();
    statement();
    return writer->all();
  }
  // It takes and gives back the lock so often.
  template <class Statement>
  void expect_pairs(int pairs, Statement statement) {
    Watch const watch;
    statement();
    std::string expected;
    while (pairs--) expected += "WaitForSingleObjectEx(handle, 4294967295, 1)ReleaseMutex(handle)";
    EXPECT_EQ(watch.calls, expected);
  }

  SmartPtr<RecordingWriter> writer = MakeCounted<RecordingWriter>();
  TDebugStream stream{writer};
};

// An object that writes to the stream that is describing it.
struct Talkative : virtual SmartPtrObj {
  explicit Talkative(TDebugStream& target) : stream(target) {}
  std::string describe() const override {
    stream << "(" << 1 << ")";
    return "talkative";
  }
  TDebugStream& stream;
};

#define EXPECT_WRITTEN(EXPRESSION, TEXT) \
  EXPECT_EQ(written([&] { stream << EXPRESSION; }), TEXT)

}  // namespace

#ifdef _UCRT
#define EXPONENT "10"
#else
#define EXPONENT "010"
#endif

TEST_F(Stream, NumbersAreWrittenByTheFormatsOfTheRunTime) {
  EXPECT_WRITTEN(true << false, "truefalse");
  EXPECT_WRITTEN('A' << '\0', "A\0"sv);
  EXPECT_WRITTEN(static_cast<unsigned char>(65), "65");
  EXPECT_WRITTEN(std::numeric_limits<int>::min(), "-2147483648");
  EXPECT_WRITTEN(4294967295u << '/' << 4294967295ul, "4294967295/4294967295");
  EXPECT_WRITTEN(std::numeric_limits<__int64>::min(), "-9223372036854775808");
  EXPECT_WRITTEN(~0ull << -5L, "18446744073709551615-5");
  EXPECT_WRITTEN(0.1 << ' ' << 1e10 << ' ' << 1.0f, "0.1 1e+" EXPONENT " 1");
}

TEST_F(Stream, TextIsWrittenAsItIsAndWideTextInTheAnsiCodePage) {
  EXPECT_WRITTEN("abc" << L"gr\u00F6\u00DFe" << L'x', "abcgr\xF6\xDF" "ex");
  EXPECT_WRITTEN("view"sv.substr(0, 2) << L"wide"sv.substr(2), "vide");
  EXPECT_WRITTEN(static_cast<char const*>(nullptr), "<null>");
  EXPECT_WRITTEN(static_cast<wchar_t const*>(nullptr), "<null>");
  EXPECT_WRITTEN(std::string("a\0b"sv), "a\0b"sv);
  EXPECT_WRITTEN(std::wstring(L"a\0b"sv), "a\0b"sv);
  EXPECT_WRITTEN(basic_const_string<char>("abcdef", 3), "abc");
  EXPECT_WRITTEN(_bstr_t(L"com") << _bstr_t(L"") << _bstr_t(), "com");
  char buffer[] = "mutable";
  EXPECT_WRITTEN(buffer << static_cast<char*>(buffer), "mutablemutable");
}

TEST_F(Stream, ObjectsTimesAndValuesAreWrittenByTheirOwnTexts) {
  auto const object = MakeCounted<RecordingWriter>();
  EXPECT_WRITTEN(object.get(), object->describe());
  EXPECT_WRITTEN(static_cast<SmartPtrObj const*>(nullptr), "<NULL>");
  EXPECT_WRITTEN(std::runtime_error("!") << EGeneric({"Text", "?"}) << std::endl, "!?\n");
  EXPECT_WRITTEN(_time_t(1), _time_t(1).ctime());
  EXPECT_WRITTEN(_time_t::invalid, "<invalid time>");

  EXPECT_WRITTEN(_value_t(), "<void>");
  EXPECT_WRITTEN(_value_t(std::vector<int>()), "<void>");
  EXPECT_WRITTEN(_value_t(std::vector<int>{1, 2}), _value_t(std::vector<int>{1, 2}).as_string());
  EXPECT_WRITTEN(_value_t("text"), "text");
}

TEST_F(Stream, FormattedTextAndThatOfValuesIsCutWithItsTerminator) {
  EXPECT_EQ(written([&] { stream.printf("%d-%s", 7, "x").printf("!"); }), "7-x!");
  std::string const fits(4095, 'x'), longer(4096, 'x');
  EXPECT_EQ(written([&] { stream.printf("%s", fits.c_str()); }), fits);
  EXPECT_EQ(written([&] { stream.printf("%s", longer.c_str()); }), fits + '\0');
  EXPECT_WRITTEN(_value_t(longer), fits + '\0');
}

TEST_F(Stream, DumpIsPairsOfDigitsWithBlanksBetween) {
  unsigned char const bytes[] = {1, 2, 255, 0xAB};
  EXPECT_EQ(written([&] { stream.Dump(bytes, 4); }), "01 02 FF AB");
  EXPECT_EQ(written([&] { stream.Dump(bytes, 1) << "\n"; }), "01\n");
  EXPECT_EQ(written([&] { stream.Dump(bytes, 0) << "."; }), ".");
  EXPECT_EQ(written([&] { stream.Dump(bytes, -1); }), "");
}

TEST_F(Stream, WriterThatThrowsIsDroppedEvenIfItRemovesItselfAndTheOthersGoOn) {
  struct Leaving : ThrowingWriter {
    explicit Leaving(TDebugStream& target) : stream(target) {}
    void StreamWriteString(char const* text, unsigned __int64 size) override {
      stream.RemoveWriter(this);
      ThrowingWriter::StreamWriteString(text, size);
    }
    TDebugStream& stream;
  };
  auto const first = MakeCounted<ThrowingWriter>();
  TDebugStream mixed(first, writer);
  for (int i = 0; i < 2; ++i) mixed.AddWriter(new Leaving(mixed));
  auto const last = MakeCounted<RecordingWriter>();
  mixed.AddWriter(last);
  mixed << "one" << "two";
  EXPECT_EQ(first->calls, 1);
  EXPECT_EQ(first.use_count(), 1);
  EXPECT_EQ(writer->texts, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(last->texts, writer->texts);
  TDebugStream lone(first);
  lone << "text";
  EXPECT_FALSE(lone.GetEnabled());
}

TEST_F(Stream, WritersAreAddedAndRemovedOneAtATime) {
  stream.AddWriter(writer);
  EXPECT_WRITTEN("x", "xx");
  stream.RemoveWriter(writer);
  EXPECT_WRITTEN("x", "x");
  stream += stream;
  EXPECT_WRITTEN("x", "xx");
  stream.ChangeWriter(MakeCounted<RecordingWriter>());
  EXPECT_WRITTEN("y", "");
  stream.ClearWriters();
  EXPECT_NO_THROW(stream << "z");
  EXPECT_FALSE(stream.GetEnabled());
}

TEST_F(Stream, ClassesAreBitsThatOnlyTheClientsLookAt) {
  for (char letter : {'A', 'Z'}) stream.SetEnabled(letter, true);
  EXPECT_TRUE(stream.GetEnabled('A') && stream.GetEnabled('Z') && !stream.GetEnabled('B'));
  for (char letter : {'a', '@', '[', '\0', '\xC4'}) {
    EXPECT_FALSE(stream.GetEnabled(letter));
    EXPECT_THROW(stream.SetEnabled(letter, true), std::out_of_range);
  }
  stream.ClearWriters();
  EXPECT_FALSE(stream.GetEnabled('A'));
}

TEST_F(Stream, TimeStampStandsBeforeEveryLineAndTheDateWhereTheDayChanges) {
  SYSTEMTIME time = {2004, 2, 0, 29, 12, 30, 45, 678};
  Replacement const clock{VELT_CALL(GetLocalTime),
                          [&](auto, SYSTEMTIME* place) { *place = time; }};
  stream.TimeStamps = true;
  EXPECT_WRITTEN("one\n" << "a" << "b\n" << "\nend",
                 "29.02.2004\n12:30:45.678 one\n12:30:45.678 ab\n12:30:45.678 \n"
                 "12:30:45.678 end");
  time = {2004, 3, 0, 1, 0, 0, 0, 7};
  EXPECT_WRITTEN(" of line\nnext", " of line\n01.03.2004\n00:00:00.007 next");
  // The other form has both, and a year of two digits.
  Replacement const other_clock{VELT_CALL(_localtime64_s), [](auto, tm* place, auto) {
                                  *place = {45, 30, 12, 29, 1, 104, 0, 0, 0};
                                  return 0;
                                }};
  EXPECT_EQ(now(), "29.02.04 12:30:45 ");
}

// If each stamp moved the text behind it, these lines would move a thousand times
// their bytes.
TEST_F(Stream, TimeStampsMoveALongTextOnlyAFewTimes) {
  using move = void*(void*, void const*, std::size_t);
  std::string text;
  for (int line = 0; line < 2000; ++line) text += "line of text\n";
  stream.TimeStamps = true;
  std::atomic<std::size_t> moved = 0;
  {
    auto const counted = [&](move* platform, void* to, void const* from, std::size_t size) {
      moved += size;
      return platform(to, from, size);
    };
    patched_modules.push_back(L"libstdc++-6.dll");  // whose strings it uses
    Replacement const copies{Call<move*>{"memcpy"}, counted};
    Replacement const moves{Call<move*>{"memmove"},
                            [&](auto... arguments) { return counted(arguments...); }};
    stream.WriteString(text.data(), text.size());
    patched_modules.pop_back();
  }
  auto const size = writer->all().size();
  EXPECT_GE(size, 2 * text.size());
  EXPECT_GT(moved, size);  // counts at all
  EXPECT_LT(moved, 12 * size);
}

TEST_F(Stream, StatementOrSessionCostsOnePairHoweverLongItIsAndACopyItsOwn) {
  Talkative const object(stream);
  expect_pairs(1, [&] { stream << "a"; });
  expect_pairs(1, [&] {
    stream << 1 << ',' << 2.5 << L"w" << _value_t(3) << static_cast<SmartPtrObj const*>(&object)
           << "\n";
  });
  expect_pairs(1, [&] { stream.Dump("abcdefgh", 8) << "\n"; });
  expect_pairs(1, [&] { stream.printf("%d", 1); });
  EXPECT_EQ(writer->all(), "a1,2.5w3(1)talkative\n61 62 63 64 65 66 67 68\n1");
  expect_pairs(1, [&] {
    TDebugStreamSession session(stream);
    TDebugStreamSession same = session;
    stream.AddWriter(MakeCounted<RecordingWriter>());
    stream.RemoveWriter(writer);
    stream << "line " << 1 << "\n";
    same << "line " << 2 << "\n";
  });
  TDebugStreamSession session(stream);
  TDebugStream copy = stream;
  expect_pairs(1, [&] { copy << "a" << 1; });
  expect_pairs(0, [&] { stream << "b" << 2; });
}

TEST_F(Stream, WritingLeavesTheLastErrorAlone) {
  stream.AddWriter(MakeCounted<TDebugWriter>());
  SetLastError(1234);
  EXPECT_WRITTEN("failed: " << GetLastError() << "\n", "failed: 1234\n");
  EXPECT_EQ(GetLastError(), 1234u);
}

TEST(ReadyStreams, ErrorGoesToTheDebuggerAndToItsFile) {
  auto const mark = "mark " + std::to_string(GetTickCount64()) + "\n";
  std::string sent;
  auto const capture = debugger_capture(sent);
  Error << mark;
  Debug << "and " << mark;
  Console << "not here";
  EXPECT_EQ(sent, mark + "and " + mark);
  std::ifstream file("c:\\error.log");
  std::string const log{std::istreambuf_iterator<char>(file), {}};
  EXPECT_TRUE(log.ends_with(mark));
}
