// A client's program: objects, values and exceptions cross the DLL's boundary,
// and header, DLL and package description are asked for the version.
#include <velt/velt.h>

#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

int failures = 0;

void expect_equal(char const* what, std::string const& found, std::string const& expected) {
  if (found == expected) return;
  std::fprintf(stderr, "%s: found '%s', expected '%s'\n", what, found.c_str(), expected.c_str());
  ++failures;
}

std::string dotted(int major, int minor, int patch) {
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

// One entry of the version resource of velt.dll; null if there is none.
template <class T>
T const* resource_entry(char const* path) {
  static std::vector<char> const block = [] {
    DWORD ignored = 0;
    std::vector<char> result(GetFileVersionInfoSizeW(L"velt.dll", &ignored));
    if (!GetFileVersionInfoW(L"velt.dll", 0, static_cast<DWORD>(result.size()), result.data()))
      result.clear();
    return result;
  }();
  void* entry = nullptr;
  UINT size = 0;
  if (block.empty() || !VerQueryValueA(block.data(), path, &entry, &size)) return nullptr;
  return static_cast<T const*>(entry);
}

void check_versions() {
  auto const expected = dotted(VELT_VERSION_MAJOR, VELT_VERSION_MINOR, VELT_VERSION_PATCH);
  expect_equal("version of the package", PACKAGE_VERSION, expected);

  auto const info = resource_entry<VS_FIXEDFILEINFO>("\\");
  auto const text = resource_entry<char>("\\StringFileInfo\\040904B0\\FileVersion");
  expect_equal("version number of velt.dll",
               info ? dotted(HIWORD(info->dwFileVersionMS), LOWORD(info->dwFileVersionMS),
                             HIWORD(info->dwFileVersionLS))
                    : "none",
               expected);
  expect_equal("version text of velt.dll", text ? text : "none", expected);
}

struct Job : virtual SmartPtrObj {};

void use_an_object() {
  SmartPtr<SmartPtrObj> const object = MakeCounted<Job>();
  auto const text = object->describe();
  std::puts(text.c_str());
  expect_equal("name of an object", text.substr(0, text.find(" {")), "(anonymous namespace)::Job");
}

void use_an_exception() {
  try {
    throw EGeneric(EGeneric::P("Text", "The archive is full"), EGeneric::P("Rooms", 12));
  } catch (std::exception const& error) {
    std::puts(error.what());
    expect_equal("text of an exception", error.what(),
                 "Text: The archive is full\nRooms: 12 (0xc)");
  }
}

// Thrown by the library, caught here.
void catch_from_the_library() {
  try {
    ThrowSystemException(2);
  } catch (ESystemException const& error) {
    expect_equal("code of an exception", error["Code"].as_string(), "2");
    return;
  }
  expect_equal("exception of the library", "none", "ESystemException");
}

int read(int const volatile* address) { return *address; }

// The flags that the package hands on make a fault an exception.
void catch_a_fault() {
  redirect_structured_exceptions();
  try {
    read(reinterpret_cast<int const volatile*>(0x10));
  } catch (EStructuredException const& error) {
    expect_equal("text of a fault", error["Text"].as_string(), "Access Violation (read from 0x10)");
    return;
  }
  expect_equal("exception for a fault", "none", "EStructuredException");
}

}  // namespace

int main() {
  SaveMiniDumpOnStructuredException = SaveMiniDumpOnCppException = false;
  check_versions();
  use_an_object();
  use_an_exception();
  catch_from_the_library();
  catch_a_fault();
  return failures ? 1 : 0;
}
