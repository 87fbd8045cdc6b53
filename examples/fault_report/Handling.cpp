#include "Handling.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <typeinfo>

#include "examples/typed_values/Terminal.h"
#include "velt/exceptions/EGeneric.h"
#include "velt/symbols/Symbols.h"
#include "velt/text/Encoding.h"

namespace {

void say(std::wstring const& text) { write(stream::output, text + L'\n'); }

// Everything that an exception tells: the values of an EGeneric, or the text of another.
void say(std::exception const& error) { say(as_wstring(std::string(error.what()))); }

std::wstring type_of(std::exception const& error) {
  auto const type = typeid(error).name();
  std::unique_ptr<char, void (*)(void*)> const name(
      abi::__cxa_demangle(type, nullptr, nullptr, nullptr), std::free);
  return as_wstring(std::string(name ? name.get() : type));
}

void show(piece_of_work const& work, std::exception const& error) {
  say(L'\n' + heading(work.failure, type_of(error)));
  say(error);
}

std::vector<std::string> dumps_since(std::vector<std::string> const& before) {
  std::vector<std::string> paths;
  std::ranges::set_difference(dumps(), before, std::back_inserter(paths));
  return paths;
}

}  // namespace

bool attempt(piece_of_work const& work) {
  auto const before = dumps();
  try {
    work.run();
    return false;
  } catch (EGeneric& error) {
    show(work, error);
    if (work.is_needed) return true;
    error.cancel_minidump();
    say(L"The service can do without: its handler has taken the dump back.");
  } catch (std::exception const& error) {
    show(work, error);
    say(L"No EGeneric, so nothing is attached. What the handler finds out by itself:");
    EGeneric known;
    for (auto const& path : dumps_since(before)) known.put_value("MiniDump", path);
    known.put_value("Stack", GetMyDebugStack());
    say(known);
  }
  return true;
}

std::vector<std::string> dumps() {
  std::vector<std::string> paths;
  std::error_code no_folder;
  for (auto const& file : std::filesystem::directory_iterator("Dumps", no_folder))
    paths.push_back(file.path().string());
  std::ranges::sort(paths);
  return paths;
}
