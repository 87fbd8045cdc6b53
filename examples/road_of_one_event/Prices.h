// The prices of goods.
#pragma once

#include <string>

struct price {
  std::string goods;
  int cents;
};

// Null if the goods have no price.
price const* find_price(std::string const& goods);
int cents_of(price const* found);
