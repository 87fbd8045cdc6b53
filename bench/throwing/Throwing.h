// A throw through ten frames that have something to clean up, in two DLLs of
// the same objects: one is linked with the library's personality routine, the
// other as if there were no library.
#pragma once

namespace bench {

__declspec(dllimport) void throw_with_personality();
__declspec(dllimport) void throw_without_personality();

}  // namespace bench
