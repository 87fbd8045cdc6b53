#include "Paper.h"

#include <windows.h>

#include <charconv>
#include <sstream>

#include "Prices.h"
#include "examples/shared_settings/Loading.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/text/Encoding.h"
#include "velt/text/Format.h"
#include "velt/text/Trim.h"

namespace {

std::string trimmed(std::string const& text) { return trim(text, " \t\r"); }

// Not inlined, or the stacks would show these two under the name of their caller.
[[gnu::noinline]] _value_t quantity_in(std::string const& text) {
  int quantity = 0;
  auto const end = text.data() + text.size();
  auto const read = std::from_chars(text.data(), end, quantity);
  if (read.ec == std::errc() && read.ptr == end) return quantity;
  throw EGeneric({"Text", "Not a number"}, {"Quantity", text});
}

[[gnu::noinline]] int worth_of_line(std::string const& line) {
  auto const equals = line.find('=');
  if (equals == line.npos) throw EGeneric({"Text", "No quantity"});
  int const quantity = quantity_in(trimmed(line.substr(equals + 1)));
  return quantity * cents_of(find_price(trimmed(line.substr(0, equals))));
}

}  // namespace

paper::paper(std::wstring const& folder, std::wstring const& its_name)
    : name(as_string(its_name)),
      file(open_file(folder + L'\\' + its_name, GENERIC_READ, OPEN_EXISTING)) {}

_value_t paper::worth() {
  std::istringstream content(read_to_end(file));
  std::string line;
  int sum = 0;
  for (int number = 1; std::getline(content, line); ++number) try {
      if (!trimmed(line).empty()) sum += worth_of_line(line);
    } catch (EGeneric& error) {
      error.put_value("File", name);
      error.put_value("Line", number);
      throw;
    }
  return sum;
}

std::string money(_value_t const& cents) {
  int const all = cents;
  return format_string("%d.%02d", all / 100, all % 100);
}
