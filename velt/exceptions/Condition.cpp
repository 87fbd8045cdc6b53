#include "velt/exceptions/Condition.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

#include "velt/exceptions/EGeneric.h"

namespace velt::detail {
namespace {

constexpr std::string_view operator_word = "operator";

bool in_identifier(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// Where the name of an operator begins; the end if the function is no operator.
std::size_t start_of_operator(std::string_view signature) {
  for (std::size_t i = 0; (i = signature.find(operator_word, i)) != signature.npos; ++i) {
    std::size_t const end = i + operator_word.size();
    bool const begins = i == 0 || !in_identifier(signature[i - 1]);
    if (begins && end < signature.size() && !in_identifier(signature[end])) return i;
  }
  return signature.size();
}

// Where the parameter list begins: at the first parenthesis that is neither within
// template arguments nor part of the name of the call operator.
std::size_t start_of_parameters(std::string_view signature, std::size_t name_of_operator) {
  if (name_of_operator != signature.size()) {
    auto const rest = name_of_operator + operator_word.size();
    auto const skipped = signature.substr(rest).starts_with("()") ? 2 : 0;
    return std::min(signature.find('(', rest + skipped), signature.size());
  }
  int depth = 0;
  for (std::size_t i = 0; i < signature.size(); ++i) {
    if (signature[i] == '<') ++depth;
    if (signature[i] == '>') --depth;
    if (signature[i] == '(' && depth == 0) return i;
  }
  return signature.size();
}

// Where the name at the end of `head` begins: behind the last blank, * or & that is
// not within template arguments.
std::size_t start_of_name(std::string_view head) {
  std::size_t start = head.size();
  int depth = 0;
  for (; start > 0; --start) {
    char const c = head[start - 1];
    if (c == '>') ++depth;
    if (c == '<') --depth;
    if (depth == 0 && (c == ' ' || c == '*' || c == '&')) break;
  }
  return start;
}

// The function of a signature with its class, but without result, parameters and
// qualifiers.
std::string_view qualified_name(std::string_view signature) {
  auto const name_of_operator = start_of_operator(signature);
  auto const head = signature.substr(0, start_of_parameters(signature, name_of_operator));
  return head.substr(start_of_name(head.substr(0, name_of_operator)));
}

// A path without its folders.
std::string_view base_name(std::string_view path) {
  auto const separator = path.find_last_of("/\\");
  return separator == path.npos ? path : path.substr(separator + 1);
}

}  // namespace

void throw_condition(char const* condition, char const* file, int line, char const* function) {
  throw EGeneric({"Text", "Condition not meet"}, {"Condition", condition},
                 {"SourceFile", std::string(base_name(file))}, {"SourceLine", line},
                 {"SourceFunction", std::string(qualified_name(function))});
}

}  // namespace velt::detail
