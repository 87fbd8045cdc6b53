#include "velt/symbols/SymbolEngineInternal.h"

#include <cstring>
#include <memory>

#include "velt/text/Encoding.h"
#include "velt/text/Format.h"

namespace velt::detail {
namespace {

constexpr ULONG frame_pointer = 22;

char const* basic_type_name(DWORD type) {
  switch (type) {
    case 1:
      return "void";
    case 2:
      return "char";
    case 3:
      return "wchar";
    case 6:
      return "int";
    case 7:
      return "unsigned int";
    case 8:
      return "float";
    case 9:
      return "BCD";
    case 10:
      return "bool";
    case 13:
      return "long";
    case 14:
      return "unsigned long";
    case 25:
      return "currency";
    case 26:
      return "DATE";
    case 27:
      return "VARIANT";
    case 28:
      return "complex";
    case 29:
      return "bit";
    case 30:
      return "BSTR";
    case 31:
      return "HRESULT";
    default:
      return "<unknown>";
  }
}

struct local_free {
  void operator()(void* block) const { LocalFree(block); }
};

struct type_name {
  DWORD basic = 0;
  std::unique_ptr<wchar_t, local_free> name;  // null for a basic type

  bool is_smart_pointer() const { return name && std::wcsncmp(name.get(), L"SmartPtr<", 9) == 0; }
  std::string text() const { return name ? as_string(name.get()) : basic_type_name(basic); }
};

type_name type_of(SYMBOL_INFO const& symbol) {
  type_name type;
  ask_own_engine([&](symbol_engine& engine) {
    auto const ask = [&](IMAGEHLP_SYMBOL_TYPE_INFO what, void* answer) {
      return engine.entries().type_info(GetCurrentProcess(), symbol.ModBase, symbol.TypeIndex, what,
                                        answer);
    };
    if (ask(TI_GET_BASETYPE, &type.basic)) return true;
    wchar_t* name = nullptr;
    bool const named = ask(TI_GET_SYMNAME, &name);
    if (named) type.name.reset(name);
    return named;
  });
  return type;
}

// 0 for a variable outside the stack frame: only those in it can be read.
std::int32_t value_of(SYMBOL_INFO const& symbol) {
  constexpr ULONG on_frame = SYMFLAG_LOCAL | SYMFLAG_REGREL;
  std::int32_t value = 0;
  if ((symbol.Flags & on_frame) == on_frame && symbol.Register == frame_pointer)
    std::memcpy(&value, reinterpret_cast<void const*>(variable_frame_base + symbol.Address),
                sizeof value);
  return value;
}

}  // namespace

std::uint64_t variable_frame_base = 0;
std::string variable_text;

BOOL CALLBACK append_variable(SYMBOL_INFO* symbol, ULONG size, void*) {
  if (size != 4) return TRUE;
  auto const type = type_of(*symbol);
  auto const value = value_of(*symbol);
  variable_text += "    " + type.text() + " " + symbol->Name;
  variable_text += format_string("=0x%x (", value);
  if (!type.is_smart_pointer()) variable_text += std::to_string(value);
  variable_text += ")\n";
  return TRUE;
}

}  // namespace velt::detail
