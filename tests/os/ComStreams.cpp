#include <gtest/gtest.h>
#include <windows.h>

#include <comdef.h>

#include <cstring>
#include <sstream>
#include <string>

#include "tests/debug/Support.h"
#include "tests/os/ScratchFile.h"
#include "tests/support/OpenHandles.h"
#include "tests/support/Expect.h"
#include "velt/debug/DebugStream.h"
#include "velt/os/ComFileStream.h"
#include "velt/os/ComStringStream.h"

using namespace velt_test;

namespace {

_COM_SMARTPTR_TYPEDEF(IStream, __uuidof(IStream));

constexpr DWORD both = GENERIC_READ | GENERIC_WRITE;

LARGE_INTEGER distance(__int64 bytes) { return {.QuadPart = bytes}; }

// What a stream answers, and what it has stored.
struct Answer {
  HRESULT result;
  std::string text;
  bool operator==(Answer const&) const = default;
};

Answer read(IStream& stream, ULONG size) {
  char buffer[64];
  ULONG count = 77;
  HRESULT const result = stream.Read(buffer, size, &count);
  return {result, count == 77 ? "untouched" : std::string(buffer, count)};
}

HRESULT write(IStream& stream, std::string const& text) {
  ULONG count = 77;
  HRESULT const result = stream.Write(text.data(), static_cast<ULONG>(text.size()), &count);
  EXPECT_EQ(count, result == S_OK ? text.size() : 77);
  return result;
}

// The position reached, or -2 if none was stored.
__int64 seek(IStream& stream, __int64 by, DWORD origin, HRESULT expected = S_OK) {
  ULARGE_INTEGER position;
  position.QuadPart = static_cast<ULONGLONG>(-2);
  EXPECT_EQ(stream.Seek(distance(by), origin, &position), expected);
  return static_cast<__int64>(position.QuadPart);
}

// The size that the stream tells, if it tells nothing else.
__int64 told_size(IStream& stream) {
  STATSTG stat, expected = {};
  std::memset(&stat, 0xEE, sizeof stat);
  EXPECT_EQ(stream.Stat(&stat, STATFLAG_DEFAULT), S_OK);
  expected.type = STGTY_STREAM;
  expected.cbSize = stat.cbSize;
  EXPECT_EQ(std::memcmp(&stat, &expected, sizeof stat), 0);
  return static_cast<__int64>(stat.cbSize.QuadPart);
}

// A stream that tells of its end.
template <class Stream>
struct Mortal : Stream {
  template <class... Arguments>
  explicit Mortal(bool& its_end, Arguments const&... arguments)
      : Stream(arguments...), gone(its_end) {}
  ~Mortal() noexcept override { gone = true; }
  bool& gone;
};

struct ComFileStream : ::testing::Test {
  ScratchFile scratch;
  TFile file = TFile(scratch.wide.c_str(), both, 7, CREATE_ALWAYS);
  SmartPtr<CComFileStream> const stream = MakeCounted<CComFileStream>(file);

  ~ComFileStream() noexcept override {}
};

template <class Stream>
struct ComStream : ComFileStream {
  SmartPtr<Stream> make() {
    if constexpr (std::is_same_v<Stream, CComFileStream>)
      return stream;
    else
      return new Stream;
  }
};
using Streams = ::testing::Types<CComFileStream, CComStringStream>;
TYPED_TEST_SUITE(ComStream, Streams);

}  // namespace

TYPED_TEST(ComStream, AnswersThreeInterfacesWithOnePointer) {
  auto const made = this->make();
  int const before = made.use_count();
  for (auto const& iid : {IID_IUnknown, IID_ISequentialStream, IID_IStream}) {
    void* found = nullptr;
    EXPECT_EQ(made->QueryInterface(iid, &found), S_OK);
    EXPECT_EQ(found, static_cast<IStream*>(made.get()));
    EXPECT_EQ(made.use_count(), before + 1);
    EXPECT_EQ(made->Release(), static_cast<ULONG>(before));
  }
  void* untouched = &untouched;
  EXPECT_EQ(made->QueryInterface(IID_IStorage, &untouched), E_NOINTERFACE);
  EXPECT_EQ(untouched, &untouched);
}

TYPED_TEST(ComStream, LeavesMostOperationsOut) {
  auto const made = this->make();
  ULARGE_INTEGER const size = {.QuadPart = 1};
  IStream* copy = made.get();
  for (HRESULT const result :
       {made->SetSize(size), made->CopyTo(copy, size, nullptr, nullptr), made->Revert(),
        made->LockRegion(size, size, 0), made->UnlockRegion(size, size, 0), made->Clone(&copy),
        made->Commit(STGC_OVERWRITE)})
    EXPECT_EQ(result, E_NOTIMPL);
  EXPECT_EQ(copy, made.get());
  EXPECT_EQ(told_size(*made), 0);
}

TYPED_TEST(ComStream, StreamOfThePlatformIsCopiedInto) {
  auto const made = this->make();
  int const before = made.use_count();
  constexpr ULONG size = 100'000;
  std::string contents(size, '\0'), copied(size, '\0');
  for (std::size_t i = 0; i < size; ++i) contents[i] = static_cast<char>(i * i >> 3);
  IStreamPtr source;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &source), S_OK);
  ASSERT_EQ(source->Write(contents.data(), size, nullptr), S_OK);
  ASSERT_EQ(source->Seek(distance(0), STREAM_SEEK_SET, nullptr), S_OK);
  ULARGE_INTEGER moved;
  EXPECT_EQ(source->CopyTo(made.get(), {.QuadPart = size}, nullptr, &moved), S_OK);
  EXPECT_EQ(moved.QuadPart, size);
  ASSERT_EQ(made->Seek(distance(0), STREAM_SEEK_SET, nullptr), S_OK);
  EXPECT_EQ(made->Read(copied.data(), size, nullptr), S_OK) << "places may be null";
  EXPECT_TRUE(copied == contents);
  EXPECT_EQ(made.use_count(), before);
}

TEST_F(ComFileStream, ReadsAndWritesTheFile) {
  EXPECT_EQ(write(*stream, "some text"), S_OK);
  EXPECT_EQ(seek(*stream, 5, STREAM_SEEK_SET), 5);
  EXPECT_EQ(read(*stream, 2), (Answer{S_OK, "te"}));
  EXPECT_EQ(seek(*stream, -1, STREAM_SEEK_CUR), 6);
  EXPECT_EQ(read(*stream, 9), (Answer{S_FALSE, "ext"}));
  EXPECT_EQ(read(*stream, 9), (Answer{S_FALSE, ""}));
  EXPECT_EQ(seek(*stream, -9, STREAM_SEEK_END), 0);
  EXPECT_EQ(read(*stream, 4), (Answer{S_OK, "some"}));
  EXPECT_EQ(stream->Commit(STGC_DEFAULT), E_NOTIMPL);

  DWORD returned;
  DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  EXPECT_EQ(seek(*stream, 0x1'0000'0005, STREAM_SEEK_SET), 0x1'0000'0005);
  ASSERT_TRUE(SetEndOfFile(file));
  EXPECT_EQ(told_size(*stream), 0x1'0000'0005);
}

TEST_F(ComFileStream, FailuresAreResultsSaveThatOfStat) {
  EXPECT_EQ(seek(*stream, -1, STREAM_SEEK_SET, E_FAIL), -2);
  EXPECT_EQ(seek(*stream, 0, 9, E_FAIL), -2);
  CComFileStream writer(scratch.wide.c_str(), GENERIC_WRITE, 7, OPEN_EXISTING);
  EXPECT_EQ(read(writer, 1), (Answer{E_FAIL, "untouched"}));
  CComFileStream reader(scratch.wide.c_str(), GENERIC_READ, 7, OPEN_EXISTING);
  EXPECT_EQ(write(reader, "x"), E_FAIL);
  STATSTG stat;
  CComFileStream none{TFile(DoNotInitialize)};
  EXPECT_EQ(system_code([&] { none.Stat(&stat, 0); }), ERROR_INVALID_HANDLE);
  EXPECT_EQ(system_code([] { CComFileStream(L"velt\\no\\such", GENERIC_READ, 7, OPEN_EXISTING); }),
            ERROR_PATH_NOT_FOUND);
}

TEST_F(ComFileStream, LastReleaseOfEitherKindDeletesItAndClosesItsFile) {
  long const before = open_handles();
  for (bool const com_is_last : {false, true}) {
    bool gone = false;
    SmartPtr<CComFileStream> owner = new Mortal<CComFileStream>(gone, file);
    IStream* const held = owner.get();
    EXPECT_EQ(owner->AddRef(), 2u);
    EXPECT_EQ(open_handles(), before + 1);
    for (bool const com : {!com_is_last, com_is_last}) {
      EXPECT_FALSE(gone);
      com ? static_cast<void>(held->Release()) : owner.reset();
    }
    EXPECT_TRUE(gone);
    EXPECT_EQ(open_handles(), before);
  }
}

TEST_F(ComFileStream, CopyIsNotCountedAndAssignmentCopiesTheCount) {
  write(*stream, "text");
  auto const copy = new CComFileStream(*stream);
  CComFileStream assigned(*copy);
  SmartPtr<CComFileStream> const owner = copy;
  EXPECT_EQ(owner.use_count(), 1);
  assigned = *stream;
  EXPECT_EQ(assigned.AddRef(), static_cast<ULONG>(stream.use_count() + 1));
  EXPECT_EQ(seek(assigned, 1, STREAM_SEEK_SET), 1);
  EXPECT_EQ(read(*copy, 3), (Answer{S_OK, "ext"})) << "they share the position";
}

TEST_F(ComFileStream, OpensAPointerOfItsOwnOrNullWithOneLine) {
  SmartPtr<RecordingWriter> const lines = new RecordingWriter;
  Debug.AddWriter(lines.get());
  auto const open = [](std::wstring const& name) {
    return CComFileStream::OpenFileStream(name.c_str(), GENERIC_READ, 7, OPEN_EXISTING);
  };
  long const before = open_handles();
  {
    auto const opened = open(scratch.wide);
    EXPECT_EQ(open_handles(), before + 1);
    EXPECT_EQ(opened->AddRef(), 2u);
    opened->Release();
  }
  EXPECT_EQ(open_handles(), before);
  EXPECT_EQ(lines->all(), "");
  EXPECT_FALSE(open(scratch.wide + L".no"));
  Debug.RemoveWriter(lines.get());
  EXPECT_EQ(lines->all(), "CComFileStream::OpenFileStream( \"" + scratch.narrow +
                              ".no\" ) - failed to open, error #2\n");
}

TEST(ComStringStream, SizeIsWhatIsLeftToReadAndSeekMovesBothPositions) {
  CComStringStream stream;
  EXPECT_EQ(write(stream, "0123456789"), S_OK);
  EXPECT_EQ(told_size(stream), 10);
  EXPECT_EQ(read(stream, 4), (Answer{S_OK, "0123"}));
  EXPECT_EQ(told_size(stream), 6);
  EXPECT_EQ(stream.Commit(STGC_DEFAULT), S_OK);

  EXPECT_EQ(seek(stream, 3, STREAM_SEEK_SET), 3);
  EXPECT_EQ(told_size(stream), 0);
  EXPECT_EQ(read(stream, 2), (Answer{S_OK, "34"}));
  EXPECT_EQ(seek(stream, 1, STREAM_SEEK_CUR), 6) << "to write at: 4";
  EXPECT_EQ(told_size(stream), -2);
  write(stream, "x");
  EXPECT_EQ(seek(stream, 0, 3), -2) << "an unknown origin";
  EXPECT_EQ(read(stream, 2), (Answer{S_OK, "67"}));
  EXPECT_EQ(seek(stream, -7, STREAM_SEEK_END), 3);
  EXPECT_EQ(read(stream, 9), (Answer{S_FALSE, "3x56789"}));
  // A short read ends its use.
  EXPECT_EQ(seek(stream, 0, STREAM_SEEK_SET), -1);
  EXPECT_EQ(read(stream, 1), (Answer{S_FALSE, ""}));
  EXPECT_EQ(write(stream, "more"), S_OK) << "nothing was written";
  EXPECT_EQ(told_size(stream), 0);
}

TEST(ComStringStream, OnlySmartPtrDeletesIt) {
  bool gone = false;
  auto const stream = new Mortal<CComStringStream>(gone);
  stream->AddRef();
  EXPECT_EQ(stream->Release(), 0u);
  EXPECT_FALSE(gone);
  { SmartPtr<CComStringStream> const owner = stream; }
  EXPECT_TRUE(gone);
}

TEST(ComStringStream, OpenedOneHasACopyOfAllText) {
  std::stringstream source("some text");
  std::string word;
  source >> word;
  auto const stream = CComStringStream::OpenStringStream(source);
  source.str("another");
  EXPECT_EQ(read(*stream, 9), (Answer{S_OK, "some text"}));
  EXPECT_EQ(write(*stream, "more"), S_OK);
  EXPECT_EQ(seek(*stream, 0, STREAM_SEEK_SET), 0);
  EXPECT_EQ(read(*stream, 9), (Answer{S_OK, "more text"}));
  EXPECT_EQ(stream->AddRef(), 2u);
  SmartPtr<CComStringStream> const owner = static_cast<CComStringStream*>(stream.GetInterfacePtr());
  stream->Release();
}
