// Reads a settings file into typed values and shows how each value reads as every other
// type. Settings.h describes the file.
//
// Status: 0 if all lines were good, 1 if some were malformed, 2 if the file could not
// be read, the report could not be written, or the command was wrong.
#include <string>
#include <vector>

#include "Report.h"
#include "Settings.h"
#include "Terminal.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/EGeneric.h"

namespace {

wchar_t const usage[] = L"usage: typed_values [--help] [FILE]";

constexpr int type_width = 10;

std::wstring help() {
  std::wstring text = usage;
  text +=
      L"\n\n"
      L"Reads a settings file (examples/service.settings if none is named) into typed\n"
      L"values and shows how each reads as every other type. Lines of the file are\n"
      L"\n"
      L"  name: type = value\n"
      L"  name: list of type = value, value, value\n"
      L"\n"
      L"and the types are\n"
      L"\n";
  for (auto const& type : setting_types())
    text += L"  " + padded(type.word, type_width) + type.accepts + L'\n';
  return text;
}

int usage_error(std::wstring const& reason) {
  complain(L"typed_values: " + reason + L"; " + usage);
  return 2;
}

std::wstring counted(std::size_t count, std::wstring const& noun) {
  return std::to_wstring(count) + L' ' + noun + (count == 1 ? L"" : L"s");
}

void show(std::wstring const& path, std::vector<setting> const& settings) {
  write(stream::output, path + L": " + counted(settings.size(), L"setting") + L'\n');
  write(stream::output, L"Texts show a time as local time, as_time shows it in UTC.\n");
  for (auto const& item : settings) write(stream::output, L'\n' + report(item));
}

void show(std::wstring const& path, std::vector<EGeneric> const& malformed) {
  for (auto const& error : malformed)
    complain(path + L':' + error["Line"].as_wstring() + L": " + error["Reason"].as_wstring());
}

int run(std::vector<std::wstring> const& arguments) {
  std::wstring path = L"examples/service.settings";
  if (arguments.size() > 1) return usage_error(L"more than one file");
  if (arguments.size() == 1) path = arguments[0];
  if (path == L"--help" || path == L"-h") return write(stream::output, help()), 0;
  if (path.starts_with(L'-')) return usage_error(L"unknown option '" + path + L"'");

  auto const file = read_settings(path);
  show(path, file.settings);
  show(path, file.malformed);
  return file.malformed.empty() ? 0 : 1;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  // The report shows hundreds of exceptions of refused conversions.
  SaveMiniDumpOnCppException = false;
  try {
    return run({arguments + 1, arguments + count});
  } catch (EGeneric const& error) {
    complain(L"typed_values", error);
    return 2;
  }
}
