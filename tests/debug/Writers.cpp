#include <string_view>

#include "ChildProcess.h"
#include "Support.h"
#include "velt/debug/Writers.h"

using namespace std::string_view_literals;

namespace {

void write(TStreamWriter& writer, std::string_view text) {
  writer.StreamWriteString(text.data(), text.size());
}

}  // namespace

TEST(DebugWriter, SendsTerminatedTextToTheDebuggerWhateverItsSize) {
  DebuggerCapture capture;
  TDebugWriter writer;
  writer.StreamWriteString("one\n", 4);
  writer.StreamWriteString("two", 1);
  EXPECT_EQ(capture.text(), "one\ntwo");
}

TEST(FileWriter, AppendsInTextModeAndClosesTheFileEachTime) {
  TemporaryFile file;
  TFileWriter writer{file.name()};
  EXPECT_EQ(GetFileAttributesA(file.name()), INVALID_FILE_ATTRIBUTES);
  write(writer, "a\nb");
  EXPECT_EQ(file.bytes(), "a\r\nb");
  TFileWriter copy = writer;
  write(copy, "\0c"sv);
  EXPECT_EQ(file.bytes(), "a\r\nb\0c"sv);

  EXPECT_TRUE(DeleteFileA(file.name()));
  write(writer, "anew");
  EXPECT_EQ(file.bytes(), "anew");
}

TEST(FileWriters, FileThatCannotBeOpenedSwallowsEverything) {
  TFileWriter writer("c:\\no such folder\\log.txt");
  TPermanentFileWriter permanent("c:\\no such folder\\log.txt");
  EXPECT_NO_THROW(write(writer, "lost"));
  EXPECT_NO_THROW(write(permanent, "lost"));
}

TEST(PermanentFileWriter, EveryLineFeedGetsACarriageReturn) {
  TemporaryFile file;
  TPermanentFileWriter writer(file.name());
  for (auto const text : {"a\nb"sv, "\n\n"sv, "c\r\n\0\n"sv, "plain"sv}) write(writer, text);
  EXPECT_EQ(file.bytes(), "a\r\nb\r\n\r\nc\r\r\n\0\r\nplain"sv);
}

TEST(PermanentFileWriter, KeepsWhatTheFileHoldsAndLetsOthersReadOnly) {
  TemporaryFile file;
  { TPermanentFileWriter(file.name()).StreamWriteString("old ", 4); }
  TPermanentFileWriter writer(std::wstring(file.name(), file.name() + strlen(file.name())).c_str());
  write(writer, "new");
  EXPECT_EQ(file.bytes(), "old new");

  EXPECT_EQ(CreateFileA(file.name(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr),
            INVALID_HANDLE_VALUE);
  TPermanentFileWriter second(file.name());
  write(second, "swallowed");
  EXPECT_EQ(file.bytes(), "old new");
}

TEST(PermanentFileWriter, CopiesShareTheHandleAndTheFirstToGoClosesIt) {
  TemporaryFile file;
  TPermanentFileWriter writer(file.name());
  {
    TPermanentFileWriter copy = writer;
    write(copy, "both");
  }
  write(writer, "closed");
  EXPECT_EQ(file.bytes(), "both");
}

// The child writes "größe" in the ANSI code page, reads its console back and
// tells the characters; in the OEM code page, 437, these are 0x94 and 0xE1.
TEST(ConsoleWriter, ConsoleShowsTheTextInItsOwnCodePage) {
  TemporaryFile report;
  ASSERT_EQ(run_child({"console", report.name()}, CREATE_NO_WINDOW), 0u);
  auto const lines = lines_of(report.bytes());
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "gr\x94\xE1" "e 1");
  EXPECT_EQ(lines[1], "second");
}
