#include <gtest/gtest.h>

#include <string_view>

#include "Support.h"
#include "tests/support/ChildProcess.h"
#include "velt/debug/DebugStream.h"
#include "velt/os/File.h"

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

// Whole lines up to the moment of the end, where the last may be cut.
void expect_whole_lines(std::string const& text) {
  auto lines = lines_of(text);
  ASSERT_FALSE(lines.empty());
  lines.pop_back();
  for (auto const& line : lines)
    EXPECT_TRUE((line.starts_with("line ") && line.ends_with(" of " + std::string(20, 'x'))) ||
                line == "constructed 1" || line == "destroyed 2")
        << line;
}

}  // namespace

TEST_F(FileWriters, PlainOneAppendsInTextModeAndClosesTheFileEachTime) {
  TFileWriter writer(name), copy = writer;
  EXPECT_FALSE(exists(path));
  write(writer, "a\nb");
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

TEST_F(FileWriters, StandardOneWritesToWhatStandardErrorWas) {
  HANDLE const before = GetStdHandle(STD_ERROR_HANDLE);
  TFile const file(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS);
  SetStdHandle(STD_ERROR_HANDLE, file);
  TStandardWriter writer(TStandardWriter::Error);
  SetStdHandle(STD_ERROR_HANDLE, before);
  write(writer, "line\n");
  EXPECT_EQ(content_of(path), "line\r\n");
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

TEST(ProcessEnd, ThreadsThatStillWriteDoNotDisturbItAndStaticObjectsMayWrite) {
  for (int round = 0; round < 10; ++round) {
    scratch_folder const scratch;
    bool const returns = round % 2;
    std::vector<std::wstring> const at_once(!returns, L"now");
    EXPECT_EQ(run_program(L"debug_child.exe", at_once, scratch.path()).status, 7u) << returns;
    auto const debug = content_of(scratch.path() / "debug");
    EXPECT_TRUE(debug.starts_with("constructed 1\r\n")) << debug;
    EXPECT_EQ(debug.find("\r\ndestroyed 2\r\n") != debug.npos, returns);
    expect_whole_lines(debug);
    expect_whole_lines(content_of(scratch.path() / "own"));
  }
}

TEST(Threads, KilledHolderDoesNotKeepOthersWaiting) {
  auto const writer = MakeCounted<RecordingWriter>();
  TDebugStream stream(writer);
  HANDLE const killed = CreateThread(nullptr, 0, [](void* argument) -> DWORD {
    TDebugStreamSession session(*static_cast<TDebugStream*>(argument));
    session << "first ";
    ExitThread(0);
  }, &stream, 0, nullptr);
  WaitForSingleObject(killed, INFINITE);
  CloseHandle(killed);
  stream << "second";
  EXPECT_EQ(writer->all(), "first second");
}
