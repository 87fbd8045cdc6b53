// What the tests of the debug streams do in a process of its own: the first
// argument says what, the second is a file for the outcome.
#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>

#include "velt/debug/DebugStream.h"
#include "velt/debug/Writers.h"

namespace {

// Writes from a static constructor and a static destructor, if a file for it is
// named in the environment.
struct StaticUser {
  StaticUser() {
    char name[MAX_PATH];
    if (GetEnvironmentVariableA("VELT_STATIC_LOG", name, MAX_PATH) == 0) return;
    active = true;
    for (auto const stream : {&Debug, &Error, &Console}) {
      stream->ChangeWriter(MakeCounted<TFileWriter>(name));
      *stream << "constructed " << 1 << "\n";
    }
  }
  ~StaticUser() {
    if (!active) return;
    for (auto const stream : {&Debug, &Error, &Console}) *stream << "destroyed " << 2 << "\n";
  }

  bool active = false;
} static_user;

// The rows of the console that show something, blanks behind cut off.
void report_console(char const* file_name) {
  HANDLE const console = GetStdHandle(STD_OUTPUT_HANDLE);
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (!GetConsoleScreenBufferInfo(console, &info)) std::exit(2);
  std::ofstream report(file_name, std::ios::binary);
  for (SHORT row = 0; row < info.dwSize.Y; ++row) {
    std::string line(static_cast<std::size_t>(info.dwSize.X), ' ');
    DWORD count = 0;
    ReadConsoleOutputCharacterA(console, line.data(), static_cast<DWORD>(line.size()), {0, row},
                                &count);
    line.erase(line.find_last_not_of(' ') + 1);
    if (!line.empty()) report << line << '\n';
  }
}

int write_to_console(char const* file_name) {
  TDebugStream stream(MakeCounted<TConsoleWriter>(false));
  stream << "gr\xF6\xDF" "e " << 1 << "\n";
  Console << "second\n";
  report_console(file_name);
  return 0;
}

void write_for_ever(TDebugStream& stream) {
  for (int statement = 0;; ++statement)
    stream << "line " << statement << " of xxxxxxxxxxxxxxxxxxxx" << "\n";
}

// Threads that write to a ready stream and to one of the program, which is never
// destroyed. They keep away from the heap where they can: this platform may hang
// at the end of any process whose threads were stopped in the heap.
void start_writing(char const* file_name) {
  TDebugStream& own = *new TDebugStream(MakeCounted<TPermanentFileWriter>(file_name));
  Debug.ChangeWriter(MakeCounted<TFileWriter>(std::string(file_name) + "2"));
  for (auto const stream : {&own, &own, &Debug, &Debug})
    std::thread([stream] { write_for_ever(*stream); }).detach();
  Sleep(30);
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) return 1;
  std::string_view const task = arguments[1];
  char const* const file_name = arguments[2];
  if (task == "console") return write_to_console(file_name);
  if (task == "static") return 0;
  if (task == "return") return start_writing(file_name), 7;
  if (task == "exit_process") start_writing(file_name), ExitProcess(7);
  return 1;
}
