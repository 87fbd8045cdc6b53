#include "velt/symbols/CoffNamesInternal.h"

#include <cxxabi.h>
#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "velt/locks/Handle.h"

namespace velt::detail {
namespace {

// Reads what is loaded at the base. The module may be unloaded meanwhile.
struct loaded_image {
  std::uint64_t const base;

  bool read(std::uint64_t offset, void* data, std::size_t size) const {
    SIZE_T done;
    return ReadProcessMemory(GetCurrentProcess(), reinterpret_cast<void const*>(base + offset),
                             data, size, &done);
  }
};

class image_file {
public:
  explicit image_file(wchar_t const* path) {
    file.AttachHandle(CreateFileW(path, GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.IsValidHandle() || !GetFileSizeEx(file, &size)) size.QuadPart = 0;
  }

  bool has(std::uint64_t offset, std::uint64_t bytes) const {
    auto const end = static_cast<std::uint64_t>(size.QuadPart);
    return offset <= end && bytes <= end - offset;
  }
  bool read(std::uint64_t offset, void* data, std::size_t bytes) const {
    OVERLAPPED from{};
    from.Offset = static_cast<DWORD>(offset);
    from.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD done;
    return has(offset, bytes) && ReadFile(file, data, static_cast<DWORD>(bytes), &done, &from) &&
           done == bytes;
  }
  template <class Sequence>
  bool read_all(std::uint64_t offset, std::uint64_t count, Sequence& data) const {
    constexpr auto size_of_each = sizeof(typename Sequence::value_type);
    if (!has(offset, count * size_of_each)) return false;
    data.resize(count);
    return read(offset, data.data(), count * size_of_each);
  }

private:
  THandle file;
  LARGE_INTEGER size{};
};

struct image_headers {
  std::uint64_t start;
  IMAGE_NT_HEADERS64 nt;

  std::uint64_t sections() const {
    return start + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) +
           nt.FileHeader.SizeOfOptionalHeader;
  }
};

template <class Image>
bool read_headers(Image const& image, image_headers& headers) {
  IMAGE_DOS_HEADER dos;
  if (!image.read(0, &dos, sizeof dos)) return false;
  headers.start = static_cast<std::uint32_t>(dos.e_lfanew);
  return image.read(headers.start, &headers.nt, sizeof headers.nt);
}

// The file header has the time of the link and the position and size of the table.
bool are_of_one_link(IMAGE_NT_HEADERS64 const& a, IMAGE_NT_HEADERS64 const& b) {
  return std::memcmp(&a.FileHeader, &b.FileHeader, sizeof a.FileHeader) == 0 &&
         a.OptionalHeader.SizeOfImage == b.OptionalHeader.SizeOfImage &&
         a.OptionalHeader.CheckSum == b.OptionalHeader.CheckSum;
}

bool is_code(IMAGE_SECTION_HEADER const& section) {
  return section.Characteristics & IMAGE_SCN_MEM_EXECUTE;
}

// Functions in assembly may lack the type of a function. Static symbols without it are
// labels and sections.
bool is_function(IMAGE_SYMBOL const& symbol) {
  return symbol.StorageClass == IMAGE_SYM_CLASS_EXTERNAL ||
         (symbol.StorageClass == IMAGE_SYM_CLASS_STATIC && ISFCN(symbol.Type));
}

std::string demangled(std::string const& name) {
  int status;
  std::unique_ptr<char, void (*)(void*)> const text(
      abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), std::free);
  return text ? text.get() : std::string();
}

// A decorated name is followed by the types of the parameters, so its shortest part that
// can be undecorated is the name alone. The arguments of a template (I) and the tags of an
// interface (B) belong to it.
std::string undecorated(std::string const& name) {
  constexpr std::string_view mark = "_Z", constness = " const";
  if (!name.starts_with(mark)) return name;
  for (auto size = mark.size() + 1; size <= name.size(); ++size) {
    if (size != name.size() && (name[size] == 'I' || name[size] == 'B')) continue;
    auto text = demangled(name.substr(0, size));
    if (text.ends_with(constness)) text.resize(text.size() - constness.size());
    if (!text.empty()) return text;
  }
  return name;
}

}  // namespace

// The parts of the file while it is read.
class coff_names::reader {
public:
  bool read(std::uint64_t base, wchar_t const* path) {
    image_file const file(path);
    image_headers in_memory, headers;
    if (!read_headers(file, headers) || !read_headers(loaded_image{base}, in_memory) ||
        !are_of_one_link(headers.nt, in_memory.nt))
      return false;
    auto const& head = headers.nt.FileHeader;
    auto const table = head.PointerToSymbolTable;
    auto const end_of_table =
        table + std::uint64_t{head.NumberOfSymbols} * sizeof(IMAGE_SYMBOL);
    std::uint32_t size_of_texts;
    return table != 0 && file.read_all(headers.sections(), head.NumberOfSections, sections) &&
           file.read_all(table, head.NumberOfSymbols, symbols) &&
           file.read(end_of_table, &size_of_texts, sizeof size_of_texts) &&
           file.read_all(end_of_table, size_of_texts, texts);
  }

  // Null if the symbol lies in no section of code.
  IMAGE_SECTION_HEADER const* section_of(IMAGE_SYMBOL const& symbol) const {
    auto const number = symbol.SectionNumber;
    if (number < 1 || static_cast<std::size_t>(number) > sections.size()) return nullptr;
    auto const& section = sections[static_cast<std::size_t>(number) - 1];
    return is_code(section) ? &section : nullptr;
  }

  // A name of up to eight characters stands in the symbol itself.
  std::string_view name_of(IMAGE_SYMBOL const& symbol) const {
    if (symbol.N.Name.Short != 0) {
      auto const name = reinterpret_cast<char const*>(symbol.N.ShortName);
      return {name, strnlen(name, sizeof symbol.N.ShortName)};
    }
    auto const start = symbol.N.Name.Long;
    return start < texts.size() ? texts.c_str() + start : std::string_view();
  }

  std::vector<IMAGE_SECTION_HEADER> sections;
  std::vector<IMAGE_SYMBOL> symbols;
  std::string texts;
};

coff_names::coff_names(std::uint64_t its_base, wchar_t const* path) : base(its_base) {
  reader file;
  if (!file.read(base, path)) return;
  for (auto const& section : file.sections)
    if (is_code(section))
      for (auto const edge : {DWORD{0}, section.Misc.VirtualSize})
        places.push_back({section.VirtualAddress + edge, 0});
  for (std::size_t i = 0; i < file.symbols.size(); i += 1 + file.symbols[i].NumberOfAuxSymbols) {
    auto const& symbol = file.symbols[i];
    auto const section = file.section_of(symbol);
    auto const name = file.name_of(symbol);
    if (!section || !is_function(symbol) || name.empty()) continue;
    places.push_back({section->VirtualAddress + symbol.Value,
                      static_cast<std::uint32_t>(names.size())});
    names.append(name).push_back('\0');
  }
  places.shrink_to_fit();
  names.shrink_to_fit();
  std::ranges::stable_sort(places, {}, &place::start);
}

std::optional<function_place> coff_names::find(std::uint64_t address) const {
  auto const next = std::ranges::upper_bound(places, address - base, {}, &place::start);
  if (next == places.begin() || next[-1].name == 0) return {};
  auto const& found = next[-1];
  return function_place{undecorated(names.c_str() + found.name), address - base - found.start};
}

}  // namespace velt::detail
