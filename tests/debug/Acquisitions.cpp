// Built with the sources of the stream in the program itself, so that its calls
// of the kernel, and the bytes that it copies, can be counted.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>

#include "Support.h"
#include "velt/debug/DebugStream.h"
#include "velt/exceptions/ExceptionFamily.h"

namespace {

int waits = 0;
int releases = 0;
std::atomic<std::size_t> bytes_moved = 0;

template <class Statement>
void expect_pairs(int pairs, Statement statement) {
  waits = releases = 0;
  statement();
  EXPECT_EQ(waits, pairs);
  EXPECT_EQ(releases, pairs);
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

extern "C" {

extern DWORD(WINAPI* __real___imp_WaitForSingleObjectEx)(HANDLE, DWORD, BOOL);
extern BOOL(WINAPI* __real___imp_ReleaseMutex)(HANDLE);
DWORD(WINAPI* __wrap___imp_WaitForSingleObjectEx)
(HANDLE, DWORD, BOOL) = [](HANDLE handle, DWORD time, BOOL alertable) WINAPI -> DWORD {
  ++waits;
  return __real___imp_WaitForSingleObjectEx(handle, time, alertable);
};
BOOL(WINAPI* __wrap___imp_ReleaseMutex)(HANDLE) = [](HANDLE handle) WINAPI -> BOOL {
  ++releases;
  return __real___imp_ReleaseMutex(handle);
};

void* __real_memcpy(void*, void const*, std::size_t);
void* __real_memmove(void*, void const*, std::size_t);
void* __wrap_memcpy(void* to, void const* from, std::size_t size) {
  bytes_moved += size;
  return __real_memcpy(to, from, size);
}
void* __wrap_memmove(void* to, void const* from, std::size_t size) {
  bytes_moved += size;
  return __real_memmove(to, from, size);
}

}

// If each stamp moved the text behind it, these lines would move a thousand times
// their bytes.
TEST_F(Acquisitions, TimeStampsMoveALongTextOnlyAFewTimes) {
  std::string text;
  for (int line = 0; line < 2000; ++line) text += "line of text\n";
  stream.TimeStamps = true;
  bytes_moved = 0;
  stream.WriteString(text.data(), text.size());
  auto const written = writer->all().size();
  EXPECT_GE(written, 2 * text.size());
  EXPECT_GT(bytes_moved, written);  // counts at all
  EXPECT_LT(bytes_moved, 12 * written);
}

TEST_F(Acquisitions, StatementCostsOnePairHoweverLongItIs) {
  expect_pairs(1, [&] { stream << "a"; });
  expect_pairs(1, [&] { stream << "a" << 1 << 2.5 << true << L"w" << _value_t(3) << 'c' << "\n"; });
  expect_pairs(1, [&] { stream.WriteDouble(1) << " and more\n"; });
  expect_pairs(1, [&] { stream.Dump("abcdefgh", 8) << "\n"; });
  expect_pairs(1, [&] { stream.WriteString("text", 4); });
  expect_pairs(1, [&] { stream.printf("%d", 1); });
  EXPECT_EQ(writer->all(),
            "aa12.5truew3c\n1 and more\n61 62 63 64 65 66 67 68\ntext1");
}

TEST_F(Acquisitions, NestedStatementOnTheSameStreamCostsNothing) {
  Talkative const object(stream);
  expect_pairs(1, [&] { stream << "<" << static_cast<SmartPtrObj const*>(&object) << ">"; });
  EXPECT_EQ(writer->all(), "<(1)talkative>");
}

TEST_F(Acquisitions, SessionPaysForAllThatItsThreadDoesMeanwhile) {
  expect_pairs(1, [&] {
    TDebugStreamSession session(stream);
    TDebugStreamSession copy = session;
    stream.AddWriter(MakeCounted<RecordingWriter>());
    stream.RemoveWriter(writer);
    stream << "line " << 1 << "\n";
    copy << "line " << 2 << "\n";
  });
}

TEST_F(Acquisitions, CopyOfAHeldStreamAsksTheKernelForItself) {
  TDebugStreamSession session(stream);
  TDebugStream copy = stream;
  expect_pairs(1, [&] { copy << "a" << 1; });
  expect_pairs(0, [&] { stream << "b" << 2; });
  copy = stream;
  expect_pairs(1, [&] { copy << "c" << 3; });
}

// The platform gives the identifiers of ended threads to new ones, here once
// some 256 of them have piled up.
TEST_F(Acquisitions, ThreadWithTheIdentifierOfAKilledHolderIsNotTakenForIt) {
  struct Holder {
    TDebugStream& stream;
    HANDLE inside = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    ~Holder() { CloseHandle(inside); }
  } holder{stream};
  DWORD killed;
  HANDLE const thread = CreateThread(nullptr, 0, [](void* argument) -> DWORD {
    auto const self = static_cast<Holder*>(argument);
    TDebugStreamSession const session(self->stream);
    SetEvent(self->inside);
    Sleep(INFINITE);
    return 0;
  }, &holder, 0, &killed);
  WaitForSingleObject(holder.inside, INFINITE);
  TerminateThread(thread, 0);
  WaitForSingleObject(thread, INFINITE);
  CloseHandle(thread);

  auto const write = [](void* argument) -> DWORD {
    *static_cast<TDebugStream*>(argument) << "a" << "b";
    return 0;
  };
  for (int attempt = 0; attempt < 1000; ++attempt) {
    DWORD identifier;
    HANDLE const next = CreateThread(nullptr, 0, write, &stream, CREATE_SUSPENDED, &identifier);
    if (identifier == killed) {
      expect_pairs(1, [&] {
        ResumeThread(next);
        WaitForSingleObject(next, INFINITE);
      });
      CloseHandle(next);
      return;
    }
    TerminateThread(next, 0);
    WaitForSingleObject(next, INFINITE);
    CloseHandle(next);
  }
  GTEST_SKIP() << "the identifier was not given out again";
}
