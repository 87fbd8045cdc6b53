#include "velt/diagnostics/DumpCheckInternal.h"

#include <windows.h>

#include <dbghelp.h>

#include <cstdint>
#include <cstring>
#include <optional>

namespace velt::detail {
namespace {

// The content of a file; empty if it cannot be read. Mapped, since a dump may be too
// large to copy.
class file_view {
public:
  explicit file_view(char const* path) noexcept {
    HANDLE const file = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return;
    LARGE_INTEGER length;
    HANDLE const mapping = CreateFileMappingW(file, nullptr, PAGE_READONLY, 0, 0, nullptr);
    if (mapping && GetFileSizeEx(file, &length)) {
      start = static_cast<char const*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0));
      if (start) size = static_cast<std::uint64_t>(length.QuadPart);
    }
    if (mapping) CloseHandle(mapping);
    CloseHandle(file);
  }
  ~file_view() {
    if (start) UnmapViewOfFile(start);
  }
  file_view(file_view const&) = delete;
  file_view& operator=(file_view const&) = delete;

  bool has(std::uint64_t offset, std::uint64_t bytes) const noexcept {
    return offset <= size && bytes <= size - offset;
  }
  template <class T>
  std::optional<T> read(std::uint64_t offset) const noexcept {
    if (!has(offset, sizeof(T))) return {};
    T value;
    std::memcpy(&value, start + offset, sizeof value);
    return value;
  }
  // Does the test hold for each of `count` consecutive records?
  template <class T, class Test>
  bool all_of(std::uint64_t offset, std::uint64_t count, Test const& test) const noexcept {
    for (; count != 0; --count, offset += sizeof(T)) {
      auto const record = read<T>(offset);
      if (!record || !test(*record)) return false;
    }
    return true;
  }

private:
  char const* start = nullptr;
  std::uint64_t size = 0;
};

// Does the dump contain the range that a descriptor in it refers to?
bool has(file_view const& dump, MINIDUMP_LOCATION_DESCRIPTOR const& place) noexcept {
  return dump.has(place.Rva, place.DataSize);
}

// For a list that begins with a 32-bit count.
template <class T, class Test>
bool list_is_whole(file_view const& dump, RVA list, Test const& test) noexcept {
  auto const count = dump.read<ULONG32>(list);
  return count && dump.all_of<T>(list + sizeof *count, *count, test);
}

// The ranges of a full dump are contiguous.
bool long_memory_is_whole(file_view const& dump, RVA list) noexcept {
  struct head {
    ULONG64 count, start;
  };
  auto const read = dump.read<head>(list);
  if (!read) return false;
  auto end = read->start;
  return dump.all_of<MINIDUMP_MEMORY_DESCRIPTOR64>(
      list + sizeof(head), read->count, [&](auto const& range) {
        bool const is_there = dump.has(end, range.DataSize);
        end += range.DataSize;
        return is_there;
      });
}

// Checks the data that a stream of this kind refers to outside of itself.
bool stream_is_whole(file_view const& dump, ULONG32 kind, RVA start) noexcept {
  switch (kind) {
    case ThreadListStream:
      return list_is_whole<MINIDUMP_THREAD>(dump, start, [&](auto const& thread) {
        return has(dump, thread.Stack.Memory) && has(dump, thread.ThreadContext);
      });
    case MemoryListStream:
      return list_is_whole<MINIDUMP_MEMORY_DESCRIPTOR>(
          dump, start, [&](auto const& range) { return has(dump, range.Memory); });
    case Memory64ListStream:
      return long_memory_is_whole(dump, start);
    case ExceptionStream: {
      auto const exception = dump.read<MINIDUMP_EXCEPTION_STREAM>(start);
      return exception && has(dump, exception->ThreadContext);
    }
    default:
      return true;
  }
}

}  // namespace

bool is_whole_dump(char const* path) noexcept {
  file_view const dump(path);
  auto const header = dump.read<MINIDUMP_HEADER>(0);
  return header && std::memcmp(&header->Signature, "MDMP", 4) == 0 &&
         dump.all_of<MINIDUMP_DIRECTORY>(
             header->StreamDirectoryRva, header->NumberOfStreams,
             [&](auto const& stream) {
               return has(dump, stream.Location) &&
                      stream_is_whole(dump, stream.StreamType, stream.Location.Rva);
             });
}

}  // namespace velt::detail
