#include "tests/support/DocTables.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace velt_test {
namespace {

std::string cleaned(std::string cell) {
  std::erase(cell, '`');
  auto const first = cell.find_first_not_of(' ');
  if (first == cell.npos) return std::string();
  return cell.substr(first, cell.find_last_not_of(' ') - first + 1);
}

table_row cells_of(std::string const& line) {
  table_row row;
  for (std::size_t begin = 1, end; (end = line.find('|', begin)) != line.npos; begin = end + 1)
    row.push_back(cleaned(line.substr(begin, end - begin)));
  return row;
}

}  // namespace

std::vector<table_row> doc_table(std::string const& page, std::string const& name) {
  std::ifstream file(std::string(VELT_SOURCE_DIR "/docs/") + page);
  std::vector<table_row> rows;
  bool inside = false;
  for (std::string line; std::getline(file, line);) {
    std::erase(line, '\r');
    if (line == "<!-- table: " + name + " -->") {
      inside = true;
    } else if (inside && line.starts_with("|---")) {
      continue;
    } else if (inside && line.starts_with("|")) {
      rows.push_back(cells_of(line));
    } else if (inside) {
      break;
    }
  }
  if (rows.size() < 2) throw std::runtime_error("no table \"" + name + "\" in " + page);
  return rows;
}

}  // namespace velt_test
