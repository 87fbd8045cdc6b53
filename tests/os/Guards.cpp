// The guards of code that serves COM calls. The platform's headers stand first
// here, and last in the sources of the guards: names must work either way.
#include <windows.h>

#include <comdef.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "tests/debug/Support.h"
#include "tests/support/Expect.h"
#include "tests/support/Imports.h"
#include "velt/debug/DebugStream.h"
#include "velt/os/CoInitialize.h"
#include "velt/os/ImpersonationContext.h"

using velt_test::Watch;

VELT_WATCH(CoImpersonateClient, CoRevertToSelf, LookupAccountSidW, OpenThreadToken);

namespace {

// The client of a call: it is impersonated with the level that it grants.
class Client final : public IServerSecurity {
public:
  SECURITY_IMPERSONATION_LEVEL level = SecurityImpersonation;

  HRESULT WINAPI QueryInterface(REFIID id, void** result) override {
    bool const is_mine = id == IID_IUnknown || id == IID_IServerSecurity;
    *result = is_mine ? this : nullptr;
    return is_mine ? S_OK : E_NOINTERFACE;
  }
  // It lives as long as its test.
  ULONG WINAPI AddRef() override { return 2; }
  ULONG WINAPI Release() override { return 1; }
  HRESULT WINAPI QueryBlanket(DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*, void**, DWORD*) override {
    return E_NOTIMPL;
  }
  HRESULT WINAPI ImpersonateClient() override { return ImpersonateSelf(level) ? S_OK : E_FAIL; }
  HRESULT WINAPI RevertToSelf() override { return ::RevertToSelf() ? S_OK : E_FAIL; }
  WINBOOL WINAPI IsImpersonating() override { return FALSE; }
};

bool is_impersonated() {
  HANDLE token;
  if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token)) return false;
  return CloseHandle(token);
}

// Debug has only the test's writer.
struct Impersonation : ::testing::Test {
  SmartPtr<RecordingWriter> const writer = MakeCounted<RecordingWriter>();
  TDebugStream const writers_before = Debug;

  Impersonation() { Debug.ChangeWriter(writer); }
  ~Impersonation() noexcept override {
    Debug.ClearWriters();
    Debug += writers_before;
  }
};

// The thread serves a call.
struct ImpersonationInCall : Impersonation {
  class CoInitializeEx const apartment;
  Client client;
  IUnknown* outer = nullptr;

  ImpersonationInCall() { CoSwitchCallContext(&client, &outer); }
  ~ImpersonationInCall() noexcept override { CoSwitchCallContext(outer, &outer); }
};

void fail_impersonated() {
  CImpersonationContext const client(CImpersonationContext::NeedImpersonation);
  throw std::domain_error("the work failed");
}

// What CoGetApartmentType tells of the thread, or -2 if it is in none.
int apartment_type() {
  APTTYPE type;
  APTTYPEQUALIFIER qualifier;
  return SUCCEEDED(CoGetApartmentType(&type, &qualifier)) ? type : -2;
}

HRESULT com_code(void (*statement)()) {
  try {
    statement();
  } catch (_com_error const& error) {
    return error.Error();
  }
  return S_OK;
}

}  // namespace

TEST_F(Impersonation, OutsideACallDoesNothingUnlessItIsNeeded) {
  {
    Watch watch;
    { CImpersonationContext const by_default, not_needed(false); }
    EXPECT_EQ(watch.calls, "CoImpersonateClient()CoImpersonateClient()");
  }
  EXPECT_EQ(com_code([] { CImpersonationContext(CImpersonationContext::NeedImpersonation); }),
            RPC_E_CALL_COMPLETE);
}

TEST_F(ImpersonationInCall, LastsForTheScopeAndIsNotReported) {
  {
    CImpersonationContext const guard;
    EXPECT_TRUE(is_impersonated());
  }
  EXPECT_FALSE(is_impersonated());
  EXPECT_EQ(writer->all(), "");
}

TEST_F(ImpersonationInCall, ExceptionIsReportedWithWhatCanBeFoundOut) {
  char account[256];
  DWORD size = sizeof account;
  ASSERT_TRUE(GetUserNameA(account, &size));
  struct {
    SECURITY_IMPERSONATION_LEVEL level;
    char const *failing, *told_level, *told_account;
  } const rows[] = {{SecurityIdentification, "", "SecurityIdentification as ", account},
                    {SecurityImpersonation, "OpenThreadToken", "Unknown as \\\n", ""},
                    {SecurityDelegation, "LookupAccountSidW", "SecurityDelegation as \\\n", ""}};
  for (auto const& [level, failing, told_level, told_account] : rows) {
    client.level = level;
    writer->texts.clear();
    Watch watch(failing);
    EXPECT_THROW(fail_impersonated(), std::domain_error);
    EXPECT_TRUE(watch.calls.ends_with("CoRevertToSelf()")) << watch.calls;
    auto const report = writer->all();
    EXPECT_TRUE(report.starts_with(std::string("(!) Impersonated with level ") + told_level));
    EXPECT_TRUE(report.ends_with("\\" + std::string(told_account) + "\n")) << report;
  }
  EXPECT_FALSE(is_impersonated());
}

template <class Guard, class OtherKind>
void expect_apartment(int type) {
  {
    Guard const outer;
    { Guard const inner; }
    EXPECT_EQ(com_code([] { OtherKind const inner; }), RPC_E_CHANGED_MODE);
    EXPECT_EQ(apartment_type(), type);
  }
  EXPECT_EQ(apartment_type(), -2);
}

TEST(Apartments, LastForTheScopeAndRefuseTheOtherKind) {
  expect_apartment<class CoInitialize, class CoInitializeEx>(APTTYPE_MAINSTA);
  expect_apartment<class CoInitializeEx, class CoInitialize>(APTTYPE_MTA);
}
