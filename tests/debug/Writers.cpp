#include <gtest/gtest.h>

#include <string_view>

#include "Support.h"
#include "tests/support/ChildProcess.h"
#include "velt/debug/DebugStream.h"

using namespace velt_test;
using namespace std::string_view_literals;

namespace {

void write(TStreamWriter& writer, std::string_view text) {
  writer.StreamWriteString(text.data(), text.size());
}

struct FileWriters : ::testing::Test {
  scratch_folder const scratch;
  std::filesystem::path const path = scratch.path() / "file";
  std::string const name = path.string();
};

}  // namespace

TEST(DebugWriter, SendsTerminatedTextToTheDebuggerWhateverItsSize) {
  std::string sent;
  auto const capture = debugger_capture(sent);
  TDebugWriter writer;
  writer.StreamWriteString("one\n", 4);
  writer.StreamWriteString("two", 1);
  EXPECT_EQ(sent, "one\ntwo");
}

TEST_F(FileWriters, PlainOneAppendsInTextModeAndClosesTheFileEachTime) {
  TFileWriter writer(name);
  EXPECT_FALSE(exists(path));
  write(writer, "a\nb");
  EXPECT_EQ(content_of(path), "a\r\nb");
  TFileWriter copy = writer;
  write(copy, "\0c"sv);
  EXPECT_EQ(content_of(path), "a\r\nb\0c"sv);
  EXPECT_TRUE(remove(path));
  write(writer, "anew");
  EXPECT_EQ(content_of(path), "anew");
}

TEST_F(FileWriters, FileThatCannotBeOpenedSwallowsEverything) {
  TFileWriter writer("c:\\no such folder\\log.txt");
  TPermanentFileWriter permanent("c:\\no such folder\\log.txt");
  EXPECT_NO_THROW(write(writer, "lost"));
  EXPECT_NO_THROW(write(permanent, "lost"));
}

TEST_F(FileWriters, PermanentOneAddsCarriageReturnsAndKeepsOtherWritersOut) {
  { TPermanentFileWriter(name.c_str()).StreamWriteString("old ", 4); }
  TPermanentFileWriter writer(path.c_str());
  for (auto const text : {"a\nb"sv, "\n\n"sv, "c\r\n\0\n"sv, "plain"sv}) write(writer, text);
  TPermanentFileWriter second(name.c_str());
  write(second, "swallowed");
  EXPECT_EQ(content_of(path), "old a\r\nb\r\n\r\nc\r\r\n\0\r\nplain"sv);
  EXPECT_EQ(CreateFileA(name.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr),
            INVALID_HANDLE_VALUE);
  // Copies share the handle, and the first to go closes it.
  { TPermanentFileWriter const copy = writer; }
  write(writer, "closed");
  EXPECT_TRUE(remove(path));
}

// "größe" in the ANSI code page; in the OEM code page, 437, these letters are 0x94
// and 0xE1.
TEST(ConsoleWriter, ConsoleGetsTheTextInItsOwnCodePage) {
  std::string shown;
  Replacement const console{VELT_CALL(WriteConsoleA),
                            [&](auto, HANDLE, void const* text, DWORD size, auto...) -> BOOL {
                              shown.append(static_cast<char const*>(text), size);
                              return TRUE;
                            }};
  TDebugStream stream(MakeCounted<TConsoleWriter>(false));
  stream << "gr\xF6\xDF" "e " << 1 << "\n";
  Console << "second\n";
  EXPECT_EQ(shown, "gr\x94\xE1" "e 1\nsecond\n");
}
