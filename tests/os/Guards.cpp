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
#include "velt/os/ComGuards.h"

using namespace velt_test;

VELT_WATCH(CoRevertToSelf, LookupAccountSidW, OpenThreadToken);

namespace {

bool is_impersonated() {
  HANDLE token;
  if (!::OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token)) return false;
  return CloseHandle(token);
}

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

}  // namespace

TEST(Impersonation, OutsideACallDoesNothingUnlessItIsNeeded) {
  {
    Watch watch;
    { CImpersonationContext const by_default, not_needed(false); }
    EXPECT_EQ(watch.calls, "");
  }
  EXPECT_EQ(com_code([] { CImpersonationContext(CImpersonationContext::NeedImpersonation); }),
            RPC_E_CALL_COMPLETE);
}

// The thread acts for itself, with the level that a client would grant.
TEST(Impersonation, LastsForTheScopeAndAnExceptionIsReportedWithWhatCanBeFoundOut) {
  auto level = SecurityImpersonation;
  Replacement const client{VELT_CALL(CoImpersonateClient), [&](auto) {
                             return ImpersonateSelf(level) ? S_OK : E_FAIL;
                           }};
  Replacement const end{VELT_CALL(CoRevertToSelf),
                        [](auto) { return ::RevertToSelf() ? S_OK : E_FAIL; }};
  auto const writer = MakeCounted<RecordingWriter>();
  TDebugStream const writers_before = Debug;
  Debug.ChangeWriter(writer);
  {
    CImpersonationContext const guard;
    EXPECT_TRUE(is_impersonated());
  }
  EXPECT_FALSE(is_impersonated());
  EXPECT_EQ(writer->all(), "");

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
    writer->texts.clear();
    Watch watch(row.failing);
    EXPECT_THROW(fail_impersonated(), std::domain_error);
    EXPECT_TRUE(watch.calls.ends_with("CoRevertToSelf()")) << watch.calls;
    auto const report = writer->all();
    EXPECT_TRUE(report.starts_with(std::string("(!) Impersonated with level ") + row.told_level));
    EXPECT_TRUE(report.ends_with("\\" + std::string(row.told_account) + "\n")) << report;
  }
  EXPECT_FALSE(is_impersonated());
  Debug.ClearWriters();
  Debug += writers_before;
}

TEST(Apartments, LastForTheScopeAndRefuseTheOtherKind) {
  expect_apartment<class CoInitialize, class CoInitializeEx>(APTTYPE_MAINSTA);
  expect_apartment<class CoInitializeEx, class CoInitialize>(APTTYPE_MTA);
}
