// How often a stream goes to the platform for its lock, and how often it moves a
// text.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <string>

#include "tests/debug/Support.h"
#include "tests/support/Imports.h"
#include "velt/debug/DebugStream.h"

using namespace velt_test;

VELT_WATCH(ReleaseMutex, WaitForSingleObjectEx);

namespace {

template <class Statement>
void expect_pairs(int pairs, Statement statement) {
  Watch watch;
  statement();
  std::string expected;
  for (int i = 0; i < pairs; ++i)
    expected += "WaitForSingleObjectEx(handle, 4294967295, 1)ReleaseMutex(handle)";
  EXPECT_EQ(watch.calls, expected);
}

// An object that writes to the stream that is describing it.
struct Talkative : virtual SmartPtrObj {
  explicit Talkative(TDebugStream& target) : stream(target) {}
  std::string describe() const override {
    stream << "(" << 1 << ")";
    return "talkative";
  }
  TDebugStream& stream;
};

struct Acquisitions : ::testing::Test {
  // The destructor of a stream may throw, that of a test must not.
  ~Acquisitions() noexcept override {}

  SmartPtr<RecordingWriter> writer = MakeCounted<RecordingWriter>();
  TDebugStream stream{writer};
};

}  // namespace

TEST_F(Acquisitions, StatementCostsOnePairHoweverLongItIs) {
  Talkative const object(stream);
  expect_pairs(1, [&] { stream << "a"; });
  expect_pairs(1, [&] {
    stream << 1 << 2.5 << L"w" << _value_t(3) << static_cast<SmartPtrObj const*>(&object) << "\n";
  });
  expect_pairs(1, [&] { stream.Dump("abcdefgh", 8) << "\n"; });
  expect_pairs(1, [&] { stream.printf("%d", 1); });
  EXPECT_EQ(writer->all(), "a12.5w3(1)talkative\n61 62 63 64 65 66 67 68\n1");
}

TEST_F(Acquisitions, SessionPaysForAllThatItsThreadDoesMeanwhileAndACopyForItself) {
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

// If each stamp moved the text behind it, these lines would move a thousand times
// their bytes.
TEST_F(Acquisitions, TimeStampsMoveALongTextOnlyAFewTimes) {
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
  auto const written = writer->all().size();
  EXPECT_GE(written, 2 * text.size());
  EXPECT_GT(moved, written);  // counts at all
  EXPECT_LT(moved, 12 * written);
}
