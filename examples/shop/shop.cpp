#include <velt/velt.h>

#include <cstdio>
#include <map>
#include <string>

std::map<std::string, double> const prices = {{"rope", 2.5}, {"tar", 1.75}};

double const* find(std::string const& goods) {
  auto const found = prices.find(goods);
  return found == prices.end() ? nullptr : &found->second;
}

double worth(std::string const& goods, int count) { return *find(goods) * count; }

int main() {
  VeltDebugSetup(true);              // exceptions carry a stack
  redirect_structured_exceptions();  // faults of this thread become exceptions
  for (char const* const goods : {"rope", "sail", "tar"}) try {
    std::printf("%s: %g\n", goods, worth(goods, 3));
  } catch (EGeneric& error) {
    error.put_value("Goods", goods);
    std::puts(error.what());
  }
}
