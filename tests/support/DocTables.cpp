#include "tests/support/DocTables.h"

#include <fstream>
#include <stdexcept>

#include "velt/text/Trim.h"

namespace velt_test {
namespace {

table_row cells_of(std::string line) {
  std::erase(line, '`');
  table_row row;
  for (std::size_t begin = 1, end; (end = line.find('|', begin)) != line.npos; begin = end + 1)
    row.push_back(trim(line.substr(begin, end - begin), " "));
  return row;
}

}  // namespace

std::vector<table_row> doc_table(std::string const& page, std::string const& name) {
  std::ifstream file(std::string(VELT_SOURCE_DIR "/docs/") + page);
  std::vector<table_row> rows;
  bool inside = false;
  for (std::string line; std::getline(file, line);) {
    std::erase(line, '\r');
    if (inside && !line.starts_with("|")) break;
    if (inside && !line.starts_with("|---")) rows.push_back(cells_of(line));
    inside = inside || line == "<!-- table: " + name + " -->";
  }
  if (rows.size() < 2) throw std::runtime_error("no table \"" + name + "\" in " + page);
  return rows;
}

}  // namespace velt_test
