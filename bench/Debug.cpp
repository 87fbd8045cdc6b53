#include <windows.h>

#include <atomic>
#include <string>

#include "bench/Rows.h"
#include "velt/debug/DebugStream.h"

namespace bench {
namespace {

struct DroppingWriter : TStreamWriter {
  void StreamWriteString(char const* text, unsigned __int64 size) override {
    keep(text);
    keep(size);
  }
};

TDebugStream stream(MakeCounted<DroppingWriter>());
int number = 42;
std::atomic<unsigned> enabled_classes = 0;

void write_five_items() {
  stream << "job " << input(number) << " of " << std::string("archive") << "\n";
}

struct StampedStream : TDebugStream {
  StampedStream() : TDebugStream(MakeCounted<DroppingWriter>()) { TimeStamps = true; }
};

// In one text.
template <int lines, int times>
void write_stamped_lines() {
  static StampedStream stamped;
  static std::string const text = [] {
    std::string all;
    for (int i = 0; i != lines; ++i) all += "a line of the archive\n";
    return all;
  }();
  for (int i = 0; i != times; ++i) stamped.WriteString(text.data(), text.size());
}

void raw_mutex_pair() {
  static HANDLE const mutex = CreateMutexW(nullptr, FALSE, nullptr);
  WaitForSingleObjectEx(mutex, INFINITE, TRUE);
  ReleaseMutex(mutex);
}

void write_if_enabled() {
  if (input(stream).GetEnabled('Q')) write_five_items();
}

void write_if_flag() {
  if (input(enabled_classes).load(std::memory_order_relaxed) != 0) write_five_items();
}

}  // namespace

std::vector<Row> debug_rows() {
  return {
      {"debug_line", loop([] { write_five_items(); }),
       {{"a raw mutex pair", 1.2, loop([] { raw_mutex_pair(); })}}},

      {"debug_off", loop([] { write_if_enabled(); }),
       {{"an atomic load", 1.5, loop([] { write_if_flag(); })}}},

      {"stream_stamped", loop([] { write_stamped_lines<10'000, 1>(); }),
       {{"ten of 1,000 lines", 1.2, loop([] { write_stamped_lines<1'000, 10>(); })}}},
  };
}

}  // namespace bench
