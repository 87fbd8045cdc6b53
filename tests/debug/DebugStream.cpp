#include "velt/debug/DebugStream.h"

#include <comdef.h>

#include <concepts>
#include <limits>
#include <string_view>

#include "Support.h"
#include "velt/debug/Writers.h"

using namespace std::string_view_literals;

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

  SmartPtr<RecordingWriter> writer = MakeCounted<RecordingWriter>();
  TDebugStream stream{writer};
};

template <class T>
concept writable = requires(TDebugStreamSession& session, T value) { session << value; };

static_assert(!writable<void*> && !writable<int const*>);
static_assert(!std::is_copy_assignable_v<TDebugStreamSession>);

#define EXPECT_WRITTEN(EXPRESSION, TEXT) \
  EXPECT_EQ(written([&] { stream << EXPRESSION; }), TEXT)

}  // namespace

TEST_F(Stream, NumbersAreWrittenByTheFormatsOfTheRunTime) {
  EXPECT_WRITTEN(true << false, "truefalse");
  EXPECT_WRITTEN('A' << '\0', "A\0"sv);
  EXPECT_WRITTEN(static_cast<unsigned char>(65), "65");
  EXPECT_WRITTEN(std::numeric_limits<int>::min(), "-2147483648");
  EXPECT_WRITTEN(4294967295u << '/' << 4294967295ul, "4294967295/4294967295");
  EXPECT_WRITTEN(std::numeric_limits<__int64>::min(), "-9223372036854775808");
  EXPECT_WRITTEN(~0ull, "18446744073709551615");
  EXPECT_WRITTEN(0.1 << ' ' << 1e10 << ' ' << 1.0f, "0.1 1e+010 1");
}

TEST_F(Stream, TextIsWrittenAsItIsAndWideTextInTheAnsiCodePage) {
  EXPECT_WRITTEN("abc" << L"gr\u00F6\u00DFe", "abcgr\xF6\xDF" "e");
  EXPECT_WRITTEN(static_cast<char const*>(nullptr), "<null>");
  EXPECT_WRITTEN(static_cast<wchar_t const*>(nullptr), "<null>");
  EXPECT_WRITTEN(std::string("a\0b"sv), "a\0b"sv);
  EXPECT_WRITTEN(std::wstring(L"a\0b"sv), "a\0b"sv);
  EXPECT_WRITTEN(basic_const_string<char>("abcdef", 3), "abc");
  EXPECT_WRITTEN(basic_const_string<wchar_t>(L"abcdef", 3), "abc");
  EXPECT_WRITTEN(_bstr_t(L"com") << _bstr_t(L"") << _bstr_t(), "com");
  char buffer[] = "mutable";
  EXPECT_WRITTEN(buffer << static_cast<char*>(buffer), "mutablemutable");
}

TEST_F(Stream, ObjectsTimesAndValuesAreWrittenByTheirOwnTexts) {
  auto const object = MakeCounted<RecordingWriter>();
  SmartPtrObj const* const base = object.get();
  EXPECT_WRITTEN(base, object->describe());
  EXPECT_WRITTEN(object.get(), object->describe());
  EXPECT_WRITTEN(static_cast<SmartPtrObj const*>(nullptr), "<NULL>");
  EXPECT_WRITTEN(_time_t(1), _time_t(1).ctime());
  EXPECT_WRITTEN(_time_t::invalid, "<invalid time>");

  EXPECT_WRITTEN(_value_t(), "<void>");
  EXPECT_WRITTEN(_value_t(std::vector<int>()), "<void>");
  EXPECT_WRITTEN(_value_t(std::vector<int>{1, 2}), _value_t(std::vector<int>{1, 2}).as_string());
  EXPECT_WRITTEN(_value_t("text"), "text");
  std::string cut(4096, 'x');
  cut.back() = '\0';
  EXPECT_WRITTEN(_value_t(std::string(5000, 'x')), cut);
}

TEST_F(Stream, FormattedTextIsCutWithItsTerminator) {
  EXPECT_EQ(written([&] { stream.printf("%d-%s", 7, "x").printf("!"); }), "7-x!");
  std::string const fits(4095, 'x'), longer(4096, 'x');
  EXPECT_EQ(written([&] { stream.printf("%s", fits.c_str()); }), fits);
  EXPECT_EQ(written([&] { stream.printf("%s", longer.c_str()); }), fits + '\0');
  EXPECT_EQ(written([&] { stream.printf("%s", ""); }), "");
}

TEST_F(Stream, DumpIsPairsOfDigitsWithBlanksBetween) {
  unsigned char const bytes[] = {1, 2, 255, 0xAB};
  EXPECT_EQ(written([&] { stream.Dump(bytes, 4); }), "01 02 FF AB");
  EXPECT_EQ(written([&] { stream.Dump(bytes, 1) << "\n"; }), "01\n");
  EXPECT_EQ(written([&] { stream.Dump(bytes, 0) << "."; }), ".");
  EXPECT_EQ(written([&] { stream.Dump(bytes, -1); }), "");
}

TEST_F(Stream, WriterThatThrowsIsDroppedAndTheOthersGoOn) {
  auto const first = MakeCounted<ThrowingWriter>(), second = MakeCounted<ThrowingWriter>();
  auto const last = MakeCounted<RecordingWriter>();
  TDebugStream mixed(first, second, writer);
  mixed.AddWriter(MakeCounted<ThrowingWriter>());
  mixed.AddWriter(last);
  mixed << "one" << "two";
  EXPECT_EQ(first->calls, 1);
  EXPECT_EQ(second->calls, 1);
  EXPECT_EQ(first.use_count(), 1);
  EXPECT_EQ(writer->texts, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(last->texts, writer->texts);

  TDebugStream lone(first);
  lone << "text";
  EXPECT_FALSE(lone.GetEnabled());
}

TEST_F(Stream, WriterThatRemovesItselfIsSafe) {
  struct Leaving : TStreamWriter {
    explicit Leaving(TDebugStream& target) : stream(target) {}
    void StreamWriteString(char const*, unsigned __int64) override {
      stream.RemoveWriter(this);
      throw 1;
    }
    TDebugStream& stream;
  };
  stream.AddWriter(new Leaving(stream));
  stream.AddWriter(new Leaving(stream));
  EXPECT_WRITTEN("a" << "b", "ab");
}

TEST_F(Stream, WritersAreAddedAndRemovedOneAtATime) {
  stream.AddWriter(writer);
  EXPECT_WRITTEN("x", "xx");
  stream.RemoveWriter(writer);
  EXPECT_WRITTEN("x", "x");
  auto const other = MakeCounted<RecordingWriter>();
  stream.AddWriter(writer);
  stream.AddWriter(MakeCounted<RecordingWriter>());
  stream.ChangeWriter(other);
  EXPECT_WRITTEN("y", "");
  EXPECT_EQ(other->all(), "y");
  stream.ClearWriters();
  EXPECT_NO_THROW(stream << "z");
  EXPECT_FALSE(stream.GetEnabled());
  TDebugStream twice(other);
  twice += twice;
  twice << "!";
  EXPECT_EQ(other->all(), "y!!");
}

TEST_F(Stream, ClassesAreBitsThatOnlyTheClientsLookAt) {
  EXPECT_FALSE(stream.GetEnabled('A'));
  for (char letter : {'A', 'Z'}) stream.SetEnabled(letter, true);
  EXPECT_TRUE(stream.GetEnabled('A') && stream.GetEnabled('Z') && !stream.GetEnabled('B'));
  for (char letter : {'a', '@', '[', '\0', '\xC4'}) {
    EXPECT_FALSE(stream.GetEnabled(letter));
    try {
      stream.SetEnabled(letter, true);
      ADD_FAILURE() << "accepted " << static_cast<int>(letter);
    } catch (std::out_of_range const& error) {
      EXPECT_STREQ(error.what(), "invalid bitset<N> position");
    }
  }
  stream.ClearWriters();
  EXPECT_FALSE(stream.GetEnabled('A'));
}

TEST_F(Stream, TimeStampStandsBeforeEveryLine) {
  stream.TimeStamps = true;
  auto const is_stamp = [](std::string const& text) {
    return text.size() == 13 && text[2] == ':' && text[5] == ':' && text[8] == '.' &&
           text[12] == ' ';
  };

  // The first stamp carries the date on a line of its own.
  auto lines = lines_of(written([&] { stream << "one\ntwo\n"; }));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].size(), 10u);
  EXPECT_TRUE(is_stamp(lines[1].substr(0, 13)));
  EXPECT_EQ(lines[1].substr(13), "one");
  EXPECT_EQ(lines[2].substr(13), "two");

  // A line of several pieces has one, and an empty line has one too.
  lines = lines_of(written([&] { stream << "a" << "b\n" << "\nend"; }));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].substr(13), "ab");
  EXPECT_TRUE(is_stamp(lines[1]));
  EXPECT_EQ(lines[2].substr(13), "end");
  EXPECT_WRITTEN(" of line", " of line");
}

TEST_F(Stream, WritingLeavesTheLastErrorAlone) {
  stream.AddWriter(MakeCounted<TDebugWriter>());
  SetLastError(1234);
  EXPECT_WRITTEN("failed: " << GetLastError() << "\n", "failed: 1234\n");
  EXPECT_EQ(GetLastError(), 1234u);
}

TEST(ReadyStreams, ErrorGoesToTheDebuggerAndToItsFile) {
  auto const mark = "mark " + std::to_string(GetTickCount64()) + "\n";
  DebuggerCapture capture;
  Error << mark;
  Debug << "and " << mark;
  Console << "not here";
  EXPECT_EQ(capture.text(), mark + "and " + mark);
  std::ifstream file("c:\\error.log");
  std::string const log{std::istreambuf_iterator<char>(file), {}};
  EXPECT_TRUE(log.ends_with(mark));
}
