#include <stdio.h>
#include <stdlib.h>

#include <cstdarg>
#include <optional>
#include <set>

#include "velt/diagnostics/Settings.h"
#include "velt/symbols/SymbolEngineInternal.h"
#include "velt/text/Case.h"
#include "velt/text/Splitting.h"

using namespace velt::detail;

namespace {

// Cuts the formatted text at 1023 characters.
void append(std::string& text, char const* format, ...) {
  char buffer[1024];
  va_list arguments;
  va_start(arguments, format);
  _vsnprintf_s(buffer, sizeof buffer, sizeof buffer - 1, format, arguments);
  va_end(arguments);
  text += buffer;
}

void append_displacement(std::string& text, std::uint64_t displacement) {
  if (displacement != 0) append(text, "+%I64x", displacement);
}

void append_symbol(std::string& text, symbol_record const& symbol) {
  append(text, "%s", symbol.name.c_str());
  append_displacement(text, symbol.displacement);
}

void append_address(std::string& text, std::uint64_t address) {
  append(text, "0x%x", static_cast<unsigned>(address));
}

std::string source_text(IMAGEHLP_LINE64 const& line) {
  char name[256], extension[256], text[260];
  _splitpath_s(line.FileName, nullptr, 0, nullptr, 0, name, sizeof name, extension,
               sizeof extension);
  _snprintf_s(text, sizeof text, sizeof text - 1, "%s%s#%d", name, extension,
              static_cast<int>(line.LineNumber));
  return text;
}

std::string shortened(std::string const& name) {
  return name.size() <= 80 ? name : name.substr(0, 40) + ".." + name.substr(name.size() - 40);
}

std::string make_full_name(unsigned __int64 address) {
  auto const source = SymGetSourceFromAddress(address);
  auto const name = SymGetQualifiedNameFromAddress(address);
  return source.empty() ? name : shortened(name) + "[" + source + "]";
}

bool names_a_module(std::string const& full_name) { return full_name.front() != '!'; }

std::set<std::string> modules_not_to_blame() {
  std::set<std::string> names;
  divide_string(strlower(SkipModulesForError), names, ";");
  return names;
}

}  // namespace

std::string SymGetModuleFromAddress(unsigned __int64 address) {
  IMAGEHLP_MODULE64 module;
  bool const found = ask_engine_at(address, [&](symbol_engine& engine, bool is_known) {
    return is_known && engine.find_module(address, module);
  });
  return found ? module.ModuleName : "";
}

std::string SymGetSourceFromAddress(unsigned __int64 address) {
  std::string text;
  ask_engine_at(address, [&](symbol_engine& engine, bool) {
    IMAGEHLP_LINE64 line;
    bool const found = engine.find_line(address, line);
    if (found) text = source_text(line);
    return found;
  });
  return text;
}

std::string SymGetNameFromAddress(unsigned __int64 address) {
  symbol_record symbol;
  bool const found = ask_engine_at(address, [&](symbol_engine& engine, bool is_known) {
    return is_known && engine.find_symbol(address, symbol);
  });
  std::string text;
  if (found)
    append_symbol(text, symbol);
  else
    append_address(text, address);
  return text;
}

std::string velt::detail::SymGetQualifiedNameFromAddress(unsigned __int64 address) {
  IMAGEHLP_MODULE64 module;
  bool const has_module = ask_engine_at(address, [&](symbol_engine& engine, bool is_known) {
    return is_known && engine.find_module(address, module);
  });
  symbol_record symbol;
  bool const has_symbol =
      ask_engine([&](symbol_engine& engine) { return engine.find_symbol(address, symbol); });

  std::string text = has_module ? module.ModuleName : "";
  text += "!";
  if (has_symbol)
    append_symbol(text, symbol);
  else if (has_module && module.BaseOfImage != 0)
    append_displacement(text, address - module.BaseOfImage);
  else
    append_address(text, address);
  return text;
}

std::string SymGetFullNameFromAddress(unsigned __int64 address) {
  if (auto text = known_text(address); !text.empty()) return text;
  auto const changes = engine_changes.load();
  auto const text = make_full_name(address);
  if (names_a_module(text)) remember_text(address, text, changes);
  return text;
}

// Takes a hold on the engine only for the first name that is not in the cache.
std::string SymGetStackTrace(unsigned __int64 const* frames, unsigned int count) {
  std::string text;
  try {
    std::optional<engine_hold> hold;
    for (auto frame = frames; frame != frames + count; ++frame) {
      auto name = known_text(*frame);
      if (name.empty()) {
        if (!hold) hold.emplace();
        if (!*hold) return text;
        name = SymGetFullNameFromAddress(*frame);
      }
      text.insert(0, "\n-> " + name);
    }
  } catch (...) {
  }
  return text;
}

unsigned __int64 SymGetActualErrorAddress(unsigned __int64 const* frames, unsigned int count) {
  engine_hold const hold;
  if (!hold) return count != 0 ? frames[0] : 0;
  auto const skipped = modules_not_to_blame();
  for (auto frame = frames; frame != frames + count; ++frame)
    if (!skipped.contains(strlower(SymGetModuleFromAddress(*frame)))) return *frame;
  return 0;
}
