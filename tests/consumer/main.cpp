// A client's program: objects, values and exceptions cross the DLL's boundary,
// and header, DLL and package description are asked for the version.
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

struct Job : virtual SmartPtrObj {};

std::string name_of_an_object() {
  SmartPtr<SmartPtrObj> const object = MakeCounted<Job>();
  auto const text = object->describe();
  return text.substr(0, text.find(" {"));
}

// The first is made here, the second by the library. The flags that the package hands
// on make the third, a fault, an exception.
void throw_from_here() { throw EGeneric(EGeneric::P("Text", "full"), EGeneric::P("Rooms", 12)); }
void throw_from_the_library() { ThrowSystemException(ERROR_FILE_NOT_FOUND); }
void fault() { *reinterpret_cast<int volatile*>(0x10) = 1; }

template <class Exception>
std::string text_of(void (*throws)(), char const* name) {
  try {
    throws();
  } catch (Exception const& error) {
    return error[name].as_string();
  }
  return "nothing";
}

bool are_equal(std::string const& found, std::string const& expected) {
  if (found != expected)
    std::fprintf(stderr, "found '%s', expected '%s'\n", found.c_str(), expected.c_str());
  return found == expected;
}

}  // namespace

int main() {
  SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
  redirect_structured_exceptions();
  auto const version = format_string("%d.%d.%d", VELT_VERSION_MAJOR, VELT_VERSION_MINOR,
                                     VELT_VERSION_PATCH);
  auto const numbers = format_string(" %d %d", VELT_VERSION_MAJOR << 16 | VELT_VERSION_MINOR,
                                     VELT_VERSION_PATCH << 16);
  bool const all_equal[] = {
      are_equal(PACKAGE_VERSION, version),
      are_equal(version_of_dll(), version + numbers),
      are_equal(name_of_an_object(), "(anonymous namespace)::Job"),
      are_equal(text_of<EGeneric>(throw_from_here, "Rooms"), "12"),
      are_equal(text_of<ESystemException>(throw_from_the_library, "Code"), "2"),
      are_equal(text_of<EStructuredException>(fault, "Text"),
                "Access Violation (write to 0x10)")};
  for (bool const equal : all_equal)
    if (!equal) return 1;
}
