// Reads the tables of the documentation, so that the tests hold the code
// against what users are told.
#pragma once

#include <string>
#include <vector>

namespace velt_test {

using table_row = std::vector<std::string>;

// The rows behind "<!-- table: name -->" in a page under docs/, header first,
// without the rule below it; cells are trimmed, and backticks are left out.
// Throws std::runtime_error if there is no such table.
std::vector<table_row> doc_table(std::string const& page, std::string const& name);

}  // namespace velt_test
