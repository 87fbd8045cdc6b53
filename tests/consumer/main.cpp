// A client's program: a fault becomes an exception with the flags of the package, and
// header, DLL and package description are asked for the version.
#include <velt/velt.h>

#include <windows.h>

#include <cstdio>
#include <string>

namespace {

std::string version_of_dll() {
  static char block[4096];
  char* text = nullptr;
  UINT size = 0;
  if (!GetFileVersionInfoW(L"velt.dll", 0, sizeof block, block) ||
      !VerQueryValueA(block, "\\StringFileInfo\\040904B0\\FileVersion",
                      reinterpret_cast<void**>(&text), &size))
    return "none";
  VS_FIXEDFILEINFO* number = nullptr;
  VerQueryValueA(block, "\\", reinterpret_cast<void**>(&number), &size);
  return text + (" " + std::to_string(number->dwFileVersionMS)) + " " +
         std::to_string(number->dwFileVersionLS);
}

// The flags that the package hands on make a fault an exception.
std::string text_of_a_fault() {
  try {
    *reinterpret_cast<int volatile*>(0x10) = 1;
  } catch (EStructuredException const& error) {
    return error["Text"].as_string();
  }
  return "nothing";
}

}  // namespace

int main() {
  SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
  redirect_structured_exceptions();
  auto const version = format_string("%d.%d.%d", VELT_VERSION_MAJOR, VELT_VERSION_MINOR,
                                     VELT_VERSION_PATCH);
  auto const numbers = format_string(" %d %d", VELT_VERSION_MAJOR << 16 | VELT_VERSION_MINOR,
                                     VELT_VERSION_PATCH << 16);
  auto const found = PACKAGE_VERSION ", " + version_of_dll() + ", " + text_of_a_fault();
  auto const expected = version + ", " + version + numbers + ", Access Violation (write to 0x10)";
  std::printf("found '%s', expected '%s'\n", found.c_str(), expected.c_str());
  return found == expected ? 0 : 1;
}
