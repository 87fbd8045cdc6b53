#include <windows.h>

#include <comdef.h>
#include <shlwapi.h>

#include <cstring>
#include <sstream>
#include <string>

#include "bench/Rows.h"
#include "velt/os/ComStreams.h"
#include "velt/os/File.h"
#include "velt/os/FileMapping.h"

namespace bench {
namespace {

char block[4096];

// In the folder for temporary files, and gone with the process.
HANDLE temporary_file(wchar_t const* prefix) {
  wchar_t folder[MAX_PATH], name[MAX_PATH];
  GetTempPathW(MAX_PATH, folder);
  GetTempFileNameW(folder, prefix, 0, name);
  return CreateFileW(name, GENERIC_READ | GENERIC_WRITE | DELETE, 0, nullptr, CREATE_ALWAYS,
                     FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
}

TFile& file() {
  static auto& opened = [] () -> TFile& {
    auto& result = *new TFile(DoNotInitialize);
    result.AttachHandle(temporary_file(L"vlt"));
    return result;
  }();
  return opened;
}

HANDLE raw_file() {
  static HANDLE const opened = temporary_file(L"raw");
  return opened;
}

// Over the same block of the file again and again, so that it does not grow.
void write_block() {
  SetFilePointer(file(), 0, nullptr, FILE_BEGIN);
  keep(file().WriteFile(input(block), sizeof block));
}

void write_block_raw() {
  SetFilePointer(raw_file(), 0, nullptr, FILE_BEGIN);
  DWORD written;
  if (!WriteFile(raw_file(), input(block), sizeof block, &written, nullptr)) abort();
  keep(written);
}

wchar_t const mapping_name[] = L"velt-bench-mapping";

// There for the others to open.
void make_mapping() {
  static TFileMapping& made = *new TFileMapping;
  if (!made.IsValidHandle())
    made.CreateFileMappingW(PAGE_READWRITE, sizeof block, input(mapping_name));
}

void map_view() {
  make_mapping();
  TFileMapping mapping;
  mapping.OpenFileMappingW(input(mapping_name), FILE_MAP_READ);
  void* const view = mapping.MapViewOfFile(FILE_MAP_READ, 0, 0);
  keep(view);
  UnmapViewOfFile(view);
}

void map_view_raw() {
  make_mapping();
  HANDLE const mapping = OpenFileMappingW(FILE_MAP_READ, FALSE, input(mapping_name));
  if (!mapping) abort();
  void* const view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
  if (!view) abort();
  keep(view);
  UnmapViewOfFile(view);
  if (!CloseHandle(mapping)) abort();
}

// What the streams and their peers hold, read in blocks.
constexpr int blocks = 16;
std::string const& contents() {
  static auto const& text = *new std::string(blocks * sizeof block, 'x');
  return text;
}

HANDLE file_with_contents(wchar_t const* prefix) {
  HANDLE const made = temporary_file(prefix);
  DWORD written;
  if (!WriteFile(made, contents().data(), DWORD(contents().size()), &written, nullptr)) abort();
  return made;
}

IStream* file_stream() {
  static auto& stream = *[] {
    TFile opened(DoNotInitialize);
    opened.AttachHandle(file_with_contents(L"vlt"));
    auto const made = new CComFileStream(opened);
    made->AddRef();
    return made;
  }();
  return &stream;
}

IStream* string_stream() {
  static IStream* const stream =
      CComStringStream::OpenStringStream(std::stringstream(contents())).Detach();
  return stream;
}

IStream* memory_stream() {
  static IStream* const stream = SHCreateMemStream(
      reinterpret_cast<BYTE const*>(contents().data()), UINT(contents().size()));
  return stream;
}

void read_all(IStream* stream) {
  if (stream->Seek({}, STREAM_SEEK_SET, nullptr) != S_OK) abort();
  for (int i = 0; i < blocks; ++i) {
    ULONG read = 0;
    if (stream->Read(input(block), sizeof block, &read) != S_OK) abort();
    keep(block);
  }
}

void copy_all() {
  static std::string const contents(blocks * sizeof block, 'x');
  for (int i = 0; i < blocks; ++i) {
    std::memcpy(input(block), contents.data() + static_cast<std::size_t>(i) * sizeof block,
                sizeof block);
    keep(block);
  }
}
void read_all_raw() {
  static HANDLE const opened = file_with_contents(L"raw");
  if (!SetFilePointerEx(opened, {}, nullptr, FILE_BEGIN)) abort();
  for (int i = 0; i < blocks; ++i) {
    DWORD read = 0;
    if (!ReadFile(opened, input(block), sizeof block, &read, nullptr)) abort();
    keep(block);
  }
}

}  // namespace

std::vector<Row> os_rows() {
  return {
      {"file_write", loop([] { write_block(); }),
       {{"WriteFile", 1.02, loop([] { write_block_raw(); })}}},
      {"map_view", loop([] { map_view(); }),
       {{"the raw calls", 1.05, loop([] { map_view_raw(); })}}},
      {"com_string_read", loop([] { read_all(string_stream()); }),
       {{"SHCreateMemStream", 0.95, loop([] { read_all(memory_stream()); })},
        {"memcpy of the blocks", no_goal, loop([] { copy_all(); })}}},
      {"com_file_read", loop([] { read_all(file_stream()); }),
       {{"ReadFile", 1.05, loop([] { read_all_raw(); })}}},
  };
}

}  // namespace bench
