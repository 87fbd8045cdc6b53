#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "Support.h"
#include "velt/debug/DebugStream.h"

// Half of the threads write by a copy, which shares the lock and the writers. Other
// writers come and go meanwhile.
TEST(Threads, LinesStayWholeAlsoThroughCopiesAndWhileWritersComeAndGo) {
  constexpr int thread_count = 4, statements = 25;
  auto const recording = MakeCounted<RecordingWriter>();
  TDebugStream stream(recording), copy = stream;
  auto const write = [&](int thread) {
    auto const own = MakeCounted<RecordingWriter>();
    for (int i = 0; i < statements; ++i) {
      stream.AddWriter(own);
      if (i % 5 == 0) stream.AddWriter(MakeCounted<ThrowingWriter>());
      (thread % 2 ? stream : copy) << "<" << thread << ',' << i << "|" << L"wide" << '|' << true
                                   << '|' << _value_t(std::vector<int>{thread, i}) << ">" << "\n";
      stream.RemoveWriter(own);
    }
    EXPECT_TRUE(thread % 2 == 0 || !own->texts.empty());
  };
  std::vector<std::thread> threads;
  std::vector<std::string> expected;
  for (int thread = 0; thread < thread_count; ++thread) {
    threads.emplace_back(write, thread);
    for (int i = 0; i < statements; ++i) {
      auto const numbers = std::to_string(thread) + "," + std::to_string(i);
      expected.push_back("<" + numbers + "|wide|true|{" + numbers + "}>");
    }
  }
  for (auto& thread : threads) thread.join();
  auto lines = lines_of(recording->all());
  std::ranges::sort(lines);
  std::ranges::sort(expected);
  EXPECT_EQ(lines, expected);
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
