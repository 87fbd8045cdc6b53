// Functions of a service. They contain no diagnostics, and each fails for input that
// it does not expect.
#pragma once

#include <string>

#include "velt/value/Value.h"

struct article {
  std::string name;
  int stock;
};

// Null if there is no article with this name.
article const* find_article(std::string const& name);
int stock_of(article const* found);

int pages(int lines, int lines_of_a_page);

// The size of a file in bytes.
unsigned __int64 size_of(wchar_t const* path);

// The port after the one in the setting.
int second_port(_value_t const& setting);

// The year in a name such as "list-2026.txt".
std::string year_in(std::string const& file_name);
