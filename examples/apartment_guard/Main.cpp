// Enters a COM apartment of the given kind. Shows which apartment the thread is in
// before, inside and afterwards, and that the other kind is refused.
//
// Status: 0, or 1 if the platform did something else, or 2 if the command was wrong.
#include <windows.h>

#include <comdef.h>

#include <string>

#include "examples/typed_values/Terminal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/os/ComGuards.h"

namespace {

void tell(std::wstring const& when) {
  APTTYPE type;
  APTTYPEQUALIFIER qualifier;
  bool const is_in_one = SUCCEEDED(CoGetApartmentType(&type, &qualifier));
  write(stream::output, padded(when, 16) + (!is_in_one                ? L"in no apartment"
                                            : type == APTTYPE_MTA ? L"in the apartment of many"
                                                                  : L"in one of its own") +
                            L'\n');
}

// The last guard throws, and unwinding ends the two before it.
template <class Guard, class Other>
void enter() {
  Guard const apartment;
  tell(L"inside:");
  Guard const again;
  Other const refused;
}

int run(std::wstring const& kind) {
  tell(L"before:");
  try {
    kind == L"sta" ? enter<class CoInitialize, class CoInitializeEx>()
                   : enter<class CoInitializeEx, class CoInitialize>();
  } catch (_com_error& error) {
    write(stream::output, L"the other kind: " + EComException(error)["Text"].as_wstring() + L'\n');
    tell(L"afterwards:");
    return error.Error() == RPC_E_CHANGED_MODE ? 0 : 1;
  }
  return 1;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  std::wstring const kind = count == 2 ? arguments[1] : L"";
  SaveMiniDumpOnCppException = false;  // that the other kind is refused is not a defect
  if (kind == L"sta" || kind == L"mta") return run(kind);
  complain(L"apartment_guard: not a kind of apartment: '" + kind +
           L"'; usage: apartment_guard sta | mta");
  return 2;
}
