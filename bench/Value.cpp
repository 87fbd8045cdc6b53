#include <boost/any.hpp>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <nlohmann/json.hpp>

#include <comutil.h>

#include <any>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <string>
#include <utility>

#include "bench/Rows.h"
#include "bench/boundary/Boundary.h"
#include "velt/value/Value.h"

namespace bench {
namespace {

struct CountedText : boost::intrusive_ref_counter<CountedText, boost::thread_safe_counter> {
  explicit CountedText(char const* source) : text(source) {}
  virtual ~CountedText() = default;
  std::string text;
};

char const forty_characters[] = "forty characters, and not a single more.";
static_assert(sizeof forty_characters == 40 + 1);

std::vector<int> sixteen_numbers() {
  std::vector<int> numbers(16);
  std::iota(numbers.begin(), numbers.end(), 1000);
  return numbers;
}

// The inputs of the rows.
auto velt_object = make_velt_object();
auto boost_object = make_boost_object();

char const* text = forty_characters;
_value_t text_value(forty_characters);
std::any any_text = std::string(forty_characters);
boost::intrusive_ptr<CountedText> counted_text(new CountedText(forty_characters));

int number = 12345;
double fraction = 3.14159265358979;
_value_t int_value(number);
_value_t double_value(fraction);

_value_t digits_value("12345");
_variant_t digits_variant(L"12345");

wchar_t const* wide_text = L"forty characters, and not a single more.";
_value_t wide_value(wide_text);

_value_t sequence_value(sixteen_numbers());
nlohmann::json json_sequence(sixteen_numbers());

// A value, or another thing that is copied by its own means.
template <auto& source>
void copy() {
  auto const made = input(source);
  keep(made);
}

void make_heap_block() {
  void* const block = std::malloc(64);
  keep(block);
  std::free(block);
}

int int_by_platform(VARIANT& from) {
  VARIANT to;
  VariantInit(&to);
  VariantChangeType(&to, &from, 0, VT_I4);
  return to.lVal;
}

// A text and a number.
template <auto& text_source, auto& number_source>
void variants() {
  _variant_t const text_variant = input(text_source).as_variant();
  keep(text_variant);
  _variant_t const number_variant = input(number_source).as_variant();
  keep(number_variant);
}

template <auto& text_source, auto& number_source>
void variants_made_directly() {
  _variant_t const text_variant(input(text_source));
  keep(text_variant);
  _variant_t const number_variant(input(number_source));
  keep(number_variant);
}

std::string print_double(double value) {
  char buffer[32];
  int const length = std::snprintf(buffer, sizeof buffer, "%.7g", value);
  return {buffer, static_cast<std::size_t>(length)};
}

}  // namespace

std::vector<Row> value_rows() {
  return {
      {"handle_copy",
       loop([] { copy_and_release(input(velt_object)); }),
       {{"boost::intrusive_ptr", 1.05, loop([] { copy_and_release(input(boost_object)); })}}},

      {"value_copy_text",
       loop([] { copy<text_value>(); }),
       {{"boost::intrusive_ptr", 1.05, loop([] { copy<counted_text>(); })},
        {"std::any of std::string", no_goal, loop([] { copy<any_text>(); })}}},

      {"value_make_int",
       loop([] { keep(_value_t(input(number))); }),
       {{"boost::any", 0.35, loop([] { keep(boost::any(input(number))); })},
        {"malloc + free of 64 B", 0.35, loop([] { make_heap_block(); })}}},

      {"value_make_text",
       loop([] { keep(_value_t(input(text))); }),
       {{"std::any of std::string", 1.0,
         loop([] { keep(std::any(std::in_place_type<std::string>, input(text))); })}}},

      {"value_copy_sequence",
       loop([] { copy<sequence_value>(); }),
       {{"boost::intrusive_ptr", 1.05, loop([] { copy<counted_text>(); })},
        {"nlohmann::json", no_goal, loop([] { copy<json_sequence>(); })}}},

      {"value_text_to_int",
       loop([] { keep(input(digits_value).as_int()); }),
       {{"VariantChangeType", 0.1, loop([] { keep(int_by_platform(input(digits_variant))); })}}},

      {"value_int_to_text",
       loop([] { keep(input(int_value).as_string()); }),
       {{"std::to_string", 1.3, loop([] { keep(std::to_string(input(number))); })},
        {"the same in a DLL", no_goal, loop([] { keep(int_to_text(input(number))); })}}},

      {"value_double_to_text",
       loop([] { keep(input(double_value).as_string()); }),
       {{"snprintf \"%.7g\"", 1.0, loop([] { keep(print_double(input(fraction))); })}}},

      {"variant_out",
       loop([] { variants<wide_value, int_value>(); }),
       {{"_variant_t", 1.15, loop([] { variants_made_directly<wide_text, number>(); })}}},
  };
}

}  // namespace bench
