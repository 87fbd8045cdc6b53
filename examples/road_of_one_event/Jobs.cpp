#include "Jobs.h"

#include <filesystem>

#include "velt/debug/DebugStream.h"
#include "velt/faults/StructuredException.h"

namespace {

void log_worth(paper const& content, _value_t const& worth) {
  Debug << content.name << ": " << money(worth) << '\n';
}

// One statement, so no other text comes in between.
void log_fault(paper const& content, EGeneric const& fault) {
  auto const size = std::filesystem::file_size(fault["MiniDump"].as_string());
  Debug << content.name << ": EStructuredException\n"
        << fault.what() << "\nThe dump has " << size / 1024 << " KB.\n";
}

}  // namespace

void order::Run(SmartPtr<IThreadContext> const& context) {
  RunTask(context, [this] { work(); });
}

void order::work() {
  try {
    worth = content->worth();
    log_worth(*content, worth);
  } catch (EStructuredException const& fault) {
    log_fault(*content, fault);
    throw;
  }
}

void order::log_result() {
  WaitForFinish(-1);
  try {
    if (IsException()) RethrowException();
    Debug << content->name << " came to " << money(worth) << '\n';
  } catch (EGeneric const& error) {
    Debug << content->name
          << " came to nothing; RethrowException() throws: " << error["Text"].as_string() << '\n';
  }
}

void count_of_stock::Run(SmartPtr<IThreadContext> const&) { log_worth(*content, content->worth()); }
