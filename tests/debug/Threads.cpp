#include <algorithm>
#include <string>
#include <thread>

#include "Support.h"
#include "velt/debug/DebugStream.h"
#include "velt/debug/Writers.h"

namespace {

constexpr int thread_count = 4;
constexpr int statements = 25;

std::string expected_line(int thread, int statement) {
  return "<" + std::to_string(thread) + ":" + std::to_string(statement) + "|wide|true|01 02|{" +
         std::to_string(statement) + "," + std::to_string(thread) + "}>";
}

void write_line(TDebugStream& stream, int thread, int statement) {
  stream << "<" << thread << ':' << statement << "|" << L"wide" << '|' << true << "|01 02|"
         << _value_t(std::vector<int>{statement, thread}) << ">" << "\n";
}

// Every line is there, whole and once.
void expect_all_lines(std::string const& text, char const* where) {
  auto lines = lines_of(text);
  std::vector<std::string> expected;
  for (int thread = 0; thread < thread_count; ++thread)
    for (int statement = 0; statement < statements; ++statement)
      expected.push_back(expected_line(thread, statement));
  std::sort(lines.begin(), lines.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(lines, expected) << where;
}

template <class Body>
void on_threads(Body body) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < thread_count; ++thread) threads.emplace_back(body, thread);
  for (auto& each : threads) each.join();
}

}  // namespace

// Half of the threads write by a copy, which shares the lock and the writers. Other
// writers come and go meanwhile.
TEST(Threads, LinesStayWholeOnEveryWriterAndThroughCopies) {
  TemporaryFile file, permanent;
  auto const recording = MakeCounted<RecordingWriter>();
  DebuggerCapture capture;
  {
    TDebugStream stream(MakeCounted<TDebugWriter>(), MakeCounted<TFileWriter>(file.name()),
                        MakeCounted<TPermanentFileWriter>(permanent.name()));
    stream.AddWriter(recording);
    TDebugStream copy = stream;
    on_threads([&](int thread) {
      auto const own = MakeCounted<RecordingWriter>();
      for (int statement = 0; statement < statements; ++statement) {
        stream.AddWriter(own);
        if (statement % 5 == 0) stream.AddWriter(MakeCounted<ThrowingWriter>());
        write_line(thread % 2 ? stream : copy, thread, statement);
        stream.RemoveWriter(own);
      }
      EXPECT_TRUE(thread % 2 == 0 || !own->texts.empty());
    });
  }
  expect_all_lines(capture.text(), "debugger");
  expect_all_lines(recording->all(), "recording");
  expect_all_lines(file.bytes(), "file");
  expect_all_lines(permanent.bytes(), "permanent file");
}

TEST(Threads, HeldStreamKeepsOthersWaitingAndAKilledHolderDoesNot) {
  auto const writer = MakeCounted<RecordingWriter>();
  TDebugStream stream(writer);
  std::thread other;
  {
    TDebugStreamSession session(stream);
    session << "first ";
    other = std::thread([&] { stream << "second"; });
    Sleep(30);
    session << "still first ";
  }
  other.join();
  EXPECT_EQ(writer->all(), "first still first second");

  HANDLE const killed = CreateThread(nullptr, 0, [](void* argument) -> DWORD {
    TDebugStreamSession const session(*static_cast<TDebugStream*>(argument));
    ExitThread(0);
  }, &stream, 0, nullptr);
  WaitForSingleObject(killed, INFINITE);
  CloseHandle(killed);
  stream << " third";
  EXPECT_EQ(writer->all(), "first still first second third");
}
