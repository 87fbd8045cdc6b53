#include <cstdint>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>

#include "bench/Rows.h"
#include "velt/exceptions/EGeneric.h"

namespace bench {
namespace {

char const* message = "The settings cannot be read";
char const* file_name = "service.settings";
int code = 1234;

EGeneric make_error() {
  return EGeneric({"Text", input(message)}, {"Code", input(code)}, {"File", input(file_name)});
}

EGeneric const error = make_error();

[[noreturn]] void throw_velt() { throw make_error(); }
[[noreturn]] void throw_peer() { throw std::runtime_error(input(message)); }

bool goes_wrong = true;

// Throws from `depth` frames further down. That it might return as well, and
// has something to do then, makes an ordinary frame of each.
template <auto throws>
[[gnu::noinline]] void descend(int depth) {
  if (depth != 0)
    descend<throws>(depth - 1);
  else if (input(goes_wrong))
    throws();
  keep(depth);
}

template <class Error, auto throws>
void throw_and_catch() {
  try {
    descend<throws>(10);
  } catch (Error const& caught) {
    keep(caught);
  }
}

// What what() prints of the error.
std::string print_by_stream() {
  std::ostringstream text;
  int const shown = input(code);
  text << "Text: " << input(message) << "\nCode: " << shown << " (0x" << std::hex
       << static_cast<std::uint32_t>(shown) << ")\nFile: " << input(file_name);
  return text.str();
}

}  // namespace

std::vector<Row> exception_rows() {
  return {
      {"throw_catch",
       loop([] { throw_and_catch<EGeneric, throw_velt>(); }),
       {{"std::runtime_error", 1.05,
         loop([] { throw_and_catch<std::runtime_error, throw_peer>(); })}}},

      {"what_text",
       loop([] { keep(*input(error).what()); }),
       {{"std::ostringstream", 0.4, loop([] { keep(print_by_stream()); })}}},
  };
}

}  // namespace bench
