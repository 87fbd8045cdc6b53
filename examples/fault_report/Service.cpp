#include "Service.h"

#include <windows.h>

#include "velt/os/File.h"

article const* find_article(std::string const& name) {
  static article const bolts{"bolts", 12};
  return name == bolts.name ? &bolts : nullptr;
}

int stock_of(article const* found) { return found->stock; }

int pages(int lines, int lines_of_a_page) { return lines / lines_of_a_page; }

unsigned __int64 size_of(wchar_t const* path) {
  return TFile(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING).GetFileSize();
}

int second_port(_value_t const& setting) { return static_cast<int>(setting) + 1; }

std::string year_in(std::string const& file_name) { return file_name.substr(5, 4); }
