#include "Loading.h"

#include <windows.h>

#include "velt/exceptions/ExceptionFamily.h"
#include "velt/text/Encoding.h"
#include "velt/text/Splitting.h"
#include "velt/text/Trim.h"

namespace {

// Includes the byte order mark that some editors put at the beginning of a file.
constexpr wchar_t line_ends[] = L"\r\n\xFEFF";

// Bytes that are not UTF-8 do not survive the conversion there and back.
std::wstring decoded(std::string const& bytes) {
  auto const text = as_wstring(bytes, CP_UTF8);
  if (as_string(text, CP_UTF8) != bytes || text.find(L'\0') != text.npos)
    throw EGeneric({"Text", "not UTF-8 text"});
  return text;
}

// Between double quotes, divide_string does not divide at a line end.
bool holds_line_end(std::wstring const& line) { return line.find_first_of(line_ends) != line.npos; }

bool is_skipped(std::wstring const& line) {
  return line.empty() || (line.starts_with(L'#') && !holds_line_end(line));
}

setting load_line(std::wstring const& line) {
  try {
    if (holds_line_end(line)) throw EGeneric({"Reason", L"a double quote without its partner"});
    return read_line(line);
  } catch (EGeneric& error) {
    auto const first = line.substr(0, line.find_first_of(line_ends));
    error.put_value("Text", L"'" + first + L"': " + error["Reason"].as_wstring());
    throw;
  }
}

std::vector<setting> settings_in(std::wstring const& text) {
  std::vector<std::wstring> lines;
  divide_string(text + L'\n', lines, line_ends);

  std::vector<setting> settings;
  for (auto const& each : lines)
    if (auto const line = trim(each, L" \t"); !is_skipped(line))
      settings.push_back(load_line(line));
  if (settings.empty()) throw EGeneric({"Text", "no settings"});
  return settings;
}

}  // namespace

TFile open_file(std::wstring const& path, unsigned long access, unsigned long disposition) {
  try {
    return TFile(path.c_str(), access, FILE_SHARE_READ, disposition);
  } catch (EGeneric& error) {
    error.put_value("File", path);
    throw;
  }
}

std::string read_to_end(TFile& file) {
  std::string content;
  char part[4096];
  while (auto const size = file.ReadFile(part, sizeof part)) content.append(part, size);
  return content;
}

std::vector<setting> load_settings(TFile& file, std::wstring const& path) {
  try {
    return settings_in(decoded(read_to_end(file)));
  } catch (EGeneric& error) {
    error.put_value("File", path);
    throw;
  }
}
