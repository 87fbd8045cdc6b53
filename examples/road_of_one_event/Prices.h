// What goods cost.
#pragma once

#include <string>

struct price {
  std::string goods;
  int cents;
};

// Null if the goods have none.
price const* find_price(std::string const& goods);
int cents_of(price const* found);
