// Streams and guards of COM. The platform's headers stand first here, and last in the
// sources of the guards: names must work either way.
#include <windows.h>

#include <comdef.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tests/debug/Support.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "tests/support/OpenHandles.h"
#include "velt/os/ComGuards.h"
#include "velt/os/ComStreams.h"

using namespace velt_test;

VELT_WATCH(CoRevertToSelf, LookupAccountSidW, OpenThreadToken);

namespace {

constexpr DWORD both = GENERIC_READ | GENERIC_WRITE;

// What a stream answers, and what it has stored.
using Reading = std::pair<HRESULT, std::string>;

Reading read(IStream& stream, ULONG size) {
  std::string bytes(size, '-');
  ULONG count = 77;
  HRESULT const result = stream.Read(bytes.data(), size, &count);
  return {result, count == 77 ? "untouched" : bytes.substr(0, count)};
}

HRESULT write(IStream& stream, std::string const& text) {
  ULONG count = 77;
  HRESULT const result = stream.Write(text.data(), static_cast<ULONG>(text.size()), &count);
  EXPECT_EQ(count, result == S_OK ? text.size() : 77);
  return result;
}

// The position reached, or -2 if none was stored.
__int64 seek(IStream& stream, __int64 by, DWORD origin, HRESULT expected = S_OK) {
  ULARGE_INTEGER position = {.QuadPart = static_cast<ULONGLONG>(-2)};
  EXPECT_EQ(stream.Seek({.QuadPart = by}, origin, &position), expected);
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

void expect_little(IStream& stream) {
  for (auto const& iid : {IID_IUnknown, IID_ISequentialStream, IID_IStream}) {
    void* found = nullptr;
    EXPECT_EQ(stream.QueryInterface(iid, &found), S_OK);
    EXPECT_EQ(found, &stream);
    EXPECT_EQ(stream.Release(), 1u);
  }
  void* untouched = &untouched;
  EXPECT_EQ(stream.QueryInterface(IID_IStorage, &untouched), E_NOINTERFACE);
  EXPECT_EQ(untouched, &untouched);

  ULARGE_INTEGER const size = {.QuadPart = 1};
  IStream* copy = &stream;
  for (HRESULT const result :
       {stream.SetSize(size), stream.CopyTo(copy, size, nullptr, nullptr), stream.Revert(),
        stream.LockRegion(size, size, 0), stream.UnlockRegion(size, size, 0), stream.Clone(&copy),
        stream.Commit(STGC_OVERWRITE)})
    EXPECT_EQ(result, E_NOTIMPL);
  EXPECT_EQ(copy, &stream);

  EXPECT_EQ(told_size(stream), 0);
  char byte = 0;
  EXPECT_EQ(stream.Write("x", 1, nullptr), S_OK);
  EXPECT_EQ(stream.Seek({}, STREAM_SEEK_SET, nullptr), S_OK);
  EXPECT_EQ(stream.Read(&byte, 1, nullptr), S_OK);
  EXPECT_EQ(byte, 'x');
}

struct ComFileStream : ::testing::Test {
  scratch_folder const scratch;
  std::wstring const name = (scratch.path() / "file").native();
  TFile file = TFile(name.c_str(), both, 7, CREATE_ALWAYS);
  SmartPtr<CComFileStream> const stream = MakeCounted<CComFileStream>(file);

  ~ComFileStream() noexcept override {}
};

bool is_impersonated() {
  HANDLE token;
  if (!::OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token)) return false;
  return CloseHandle(token);
}

}  // namespace

TEST_F(ComFileStream, ReadsAndWritesTheFile) {
  expect_little(*stream);
  EXPECT_EQ(seek(*stream, 0, STREAM_SEEK_SET), 0);
  EXPECT_EQ(write(*stream, "some text"), S_OK);
  EXPECT_EQ(seek(*stream, 5, STREAM_SEEK_SET), 5);
  EXPECT_EQ(read(*stream, 2), (Reading{S_OK, "te"}));
  EXPECT_EQ(seek(*stream, -1, STREAM_SEEK_CUR), 6);
  EXPECT_EQ(read(*stream, 9), (Reading{S_FALSE, "ext"}));
  EXPECT_EQ(seek(*stream, -9, STREAM_SEEK_END), 0);
  EXPECT_EQ(read(*stream, 4), (Reading{S_OK, "some"}));
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
  CComFileStream writer(name.c_str(), GENERIC_WRITE, 7, OPEN_EXISTING);
  EXPECT_EQ(read(writer, 1), (Reading{E_FAIL, "untouched"}));
  CComFileStream reader(name.c_str(), GENERIC_READ, 7, OPEN_EXISTING);
  EXPECT_EQ(write(reader, "x"), E_FAIL);
  STATSTG stat;
  CComFileStream none{TFile(DoNotInitialize)};
  EXPECT_EQ(system_code([&] { none.Stat(&stat, 0); }), ERROR_INVALID_HANDLE);
}

TEST_F(ComFileStream, LastReleaseOfEitherKindDeletesItAndClosesItsFile) {
  long const before = open_handles();
  for (bool const com_is_last : {false, true}) {
    SmartPtr<CComFileStream> owner = new CComFileStream(file);
    IStream* const held = owner.get();
    EXPECT_EQ(held->AddRef(), 2u);
    com_is_last ? owner.reset() : void(held->Release());
    EXPECT_EQ(open_handles(), before + 1);
    com_is_last ? void(held->Release()) : owner.reset();
    EXPECT_EQ(open_handles(), before);
  }
}

TEST_F(ComFileStream, OpensAPointerOfItsOwnOrNullWithOneLine) {
  auto const opened = CComFileStream::OpenFileStream(name.c_str(), GENERIC_READ, 7, OPEN_EXISTING);
  EXPECT_EQ(opened->AddRef(), 2u);
  opened->Release();
  std::string sent;
  auto const capture = debugger_capture(sent);
  EXPECT_FALSE(CComFileStream::OpenFileStream(L"no.file", GENERIC_READ, 7, OPEN_EXISTING));
  EXPECT_EQ(sent, "CComFileStream::OpenFileStream( \"no.file\" ) - failed to open, error #2\n");
}

TEST(ComStringStream, SizeIsWhatIsLeftToReadAndSeekMovesBothPositions) {
  static bool gone = false;
  struct Mortal : CComStringStream {
    ~Mortal() noexcept override { gone = true; }
  };
  SmartPtr<CComStringStream> owner = new Mortal;
  CComStringStream& stream = *owner;
  expect_little(stream);
  EXPECT_EQ(seek(stream, 0, STREAM_SEEK_SET), 0);
  EXPECT_EQ(write(stream, "0123456789"), S_OK);
  EXPECT_EQ(told_size(stream), 10);
  EXPECT_EQ(read(stream, 4), (Reading{S_OK, "0123"}));
  EXPECT_EQ(told_size(stream), 6);
  EXPECT_EQ(stream.Commit(STGC_DEFAULT), S_OK);

  EXPECT_EQ(seek(stream, 3, STREAM_SEEK_SET), 3);
  EXPECT_EQ(told_size(stream), 0);
  EXPECT_EQ(read(stream, 2), (Reading{S_OK, "34"}));
  EXPECT_EQ(seek(stream, 1, STREAM_SEEK_CUR), 6) << "to write at: 4";
  EXPECT_EQ(told_size(stream), -2);
  write(stream, "x");
  EXPECT_EQ(seek(stream, 0, 3), -2) << "an unknown origin";
  EXPECT_EQ(seek(stream, -7, STREAM_SEEK_END), 3);
  EXPECT_EQ(read(stream, 9), (Reading{S_FALSE, "3x56789"}));
  // A short read ends its use.
  EXPECT_EQ(seek(stream, 0, STREAM_SEEK_SET), -1);
  EXPECT_EQ(read(stream, 1), (Reading{S_FALSE, ""}));
  EXPECT_EQ(write(stream, "more"), S_OK) << "nothing was written";
  EXPECT_EQ(told_size(stream), 0);

  EXPECT_EQ(stream.Release(), 0u);
  EXPECT_FALSE(gone) << "only SmartPtr deletes it";
  stream.AddRef();
  owner.reset();
  EXPECT_TRUE(gone);
}

TEST(ComStringStream, OpenedOneHasACopyOfAllText) {
  std::string text = "some text", word;
  while (text.size() < 1100) text += std::to_string(text.size());
  std::stringstream source(text);
  source >> word;
  auto const stream = CComStringStream::OpenStringStream(source);
  SmartPtr<CComStringStream> const owner = static_cast<CComStringStream*>(stream.GetInterfacePtr());
  source.str("another");
  auto const size = static_cast<ULONG>(text.size());
  EXPECT_EQ(read(*stream, size), (Reading{S_OK, text}));
  EXPECT_EQ(write(*stream, "more"), S_OK);
  EXPECT_EQ(seek(*stream, 0, STREAM_SEEK_SET), 0);
  EXPECT_EQ(read(*stream, 9), (Reading{S_OK, "more text"}));
  EXPECT_EQ(owner.use_count(), 2);
}

TEST(Impersonation, OutsideACallDoesNothingUnlessItIsNeeded) {
  {
    Watch watch;
    { CImpersonationContext const by_default, not_needed(false); }
    EXPECT_EQ(watch.calls, "");
  }
  EXPECT_THAT([] { CImpersonationContext(CImpersonationContext::NeedImpersonation); },
              testing::Throws<_com_error>(
                  testing::Property(&_com_error::Error, RPC_E_CALL_COMPLETE)));
}

// The thread acts for itself, with the level that a client would grant.
TEST(Impersonation, LastsForTheScopeAndAnExceptionIsReportedWithWhatCanBeFoundOut) {
  auto level = SecurityImpersonation;
  Replacement const client{VELT_CALL(CoImpersonateClient), [&](auto) {
                             return ImpersonateSelf(level) ? S_OK : E_FAIL;
                           }};
  Replacement const end{VELT_CALL(CoRevertToSelf),
                        [](auto) { return ::RevertToSelf() ? S_OK : E_FAIL; }};
  std::string report;
  auto const capture = debugger_capture(report);
  {
    CImpersonationContext const guard;
    EXPECT_TRUE(is_impersonated());
  }
  EXPECT_FALSE(is_impersonated());
  EXPECT_EQ(report, "");

  char account[256];
  DWORD size = sizeof account;
  ASSERT_TRUE(GetUserNameA(account, &size));
  struct {
    SECURITY_IMPERSONATION_LEVEL level;
    char const *failing, *told_level, *told_account;
  } const rows[] = {{SecurityIdentification, "", "SecurityIdentification as ", account},
                    {SecurityImpersonation, "OpenThreadToken", "Unknown as \\\n", ""},
                    {SecurityDelegation, "LookupAccountSidW", "SecurityDelegation as \\\n", ""}};
  for (auto const& row : rows) {
    level = row.level;
    report.clear();
    Watch watch(row.failing);
    auto const fail = [] {
      CImpersonationContext const guard(CImpersonationContext::NeedImpersonation);
      throw std::domain_error("the work failed");
    };
    EXPECT_THROW(fail(), std::domain_error);
    EXPECT_TRUE(watch.calls.ends_with("CoRevertToSelf()")) << watch.calls;
    EXPECT_TRUE(report.starts_with(std::string("(!) Impersonated with level ") + row.told_level));
    EXPECT_TRUE(report.ends_with("\\" + std::string(row.told_account) + "\n")) << report;
  }
  EXPECT_FALSE(is_impersonated());
}
