// Functions of a service. None knows anything of diagnostics, and each goes wrong
// for what it was not written for.
#pragma once

#include <string>

#include "velt/value/Value.h"

struct article {
  std::string name;
  int stock;
};

// Null if there is none of this name.
article const* find_article(std::string const& name);
int stock_of(article const* found);

int pages(int lines, int lines_of_a_page);

// Of a file, in bytes.
unsigned __int64 size_of(wchar_t const* path);

// The one behind the port of the setting.
int second_port(_value_t const& setting);

// Of a name such as "list-2026.txt".
std::string year_in(std::string const& file_name);
