#include "Prices.h"

price const* find_price(std::string const& goods) {
  static price const prices[] = {
      {"hops", 420}, {"oil", 950}, {"rye", 35}, {"salt", 80}, {"wine", 1200}};
  for (auto const& each : prices)
    if (each.goods == goods) return &each;
  return nullptr;
}

int cents_of(price const* found) { return found->cents; }
