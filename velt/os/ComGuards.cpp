#include "velt/os/ComGuards.h"

#include <windows.h>

#include <comutil.h>
#include <objbase.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <new>

#include "velt/debug/DebugStream.h"

using _com_util::CheckError;

namespace {

char const* name_of(DWORD level) {
  static char const* const names[] = {"SecurityAnonymous", "SecurityIdentification",
                                      "SecurityImpersonation", "SecurityDelegation"};
  return level < std::size(names) ? names[level] : "Unknown";
}

void write_level(HANDLE token) {
  DWORD level = ~0u, size = 0;
  GetTokenInformation(token, TokenImpersonationLevel, &level, sizeof level, &size);
  if (Debug.GetEnabled()) Debug << "(!) Impersonated with level ";
  if (Debug.GetEnabled()) Debug << name_of(level);
}

// The block is never freed: the report is rare, and it may be made shortly before the
// end of the process.
TOKEN_USER const* user_of(HANDLE token, DWORD& size) {
  GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  auto const block = ::operator new(std::max<std::size_t>(size, sizeof(TOKEN_USER)));
  auto const user = new (block) TOKEN_USER{};
  GetTokenInformation(token, TokenUser, user, size, &size);
  return user;
}

void write_account(HANDLE token) {
  wchar_t name[256] = L"", domain[256] = L"";
  DWORD size = 0;
  auto const user = user_of(token, size);
  // One number is the size of both buffers. It holds the bytes of the record, which
  // are more than the names have characters.
  SID_NAME_USE use;
  if (user->User.Sid)
    LookupAccountSidW(nullptr, user->User.Sid, name, &size, domain, &size, &use);
  if (Debug.GetEnabled()) Debug << " as " << domain << "\\" << name << "\n";
}

void report() {
  HANDLE token = nullptr;
  OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token);
  write_level(token);
  write_account(token);
  CloseHandle(token);
}

}  // namespace

CoInitialize::CoInitialize() { CheckError(::CoInitialize(nullptr)); }
CoInitialize::~CoInitialize() { ::CoUninitialize(); }

CoInitializeEx::CoInitializeEx() { CheckError(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)); }
CoInitializeEx::~CoInitializeEx() { ::CoUninitialize(); }

CImpersonationContext::CImpersonationContext(bool raiseOnFailure) {
  HRESULT const result = CoImpersonateClient();
  Impersonated = SUCCEEDED(result);
  if (raiseOnFailure) CheckError(result);
}

CImpersonationContext::~CImpersonationContext() {
  if (!Impersonated) return;
  if (std::uncaught_exceptions() > 0 && Debug.GetEnabled()) {
    try {
      report();
    } catch (...) {
      // A failed report must not replace the exception that it is about.
    }
  }
  CoRevertToSelf();
}
