// The examples of docs/debug.md, run.
#include <atomic>

#include "Support.h"
#include "tests/support/DocExamples.h"
#include "velt/debug/DebugStream.h"
#include "velt/debug/Writers.h"

namespace {

void compact(TDebugStream& log, std::string const& name, int pages, double ratio) {
  log << "(!) " << name << ": " << pages << " pages, " << ratio << " left\n";
}

void report(TDebugStream& log, std::vector<std::string> const& lines) {
  TDebugStreamSession session(log);
  session << "report of " << lines.size() << " lines\n";
  for (auto const& line : lines) session << "  " << line << "\n";
}

void trace_packet(TDebugStream& log, void const* data, int size) {
  if (log.GetEnabled('P')) log.Dump(data, size) << "\n";
}

class CountingWriter : public TStreamWriter {
public:
  void StreamWriteString(char const*, unsigned __int64 size) override { bytes += size; }

  std::atomic<unsigned __int64> bytes = 0;
};

}  // namespace

TEST(DocExamples, DebugPage) {
  TemporaryFile file;
  auto const counter = MakeCounted<CountingWriter>();
  char const* const file_name = file.name();
  TDebugStream log(MakeCounted<TPermanentFileWriter>(file_name), counter);

  compact(log, "index", 12, 0.5);
  report(log, {"one", "two"});
  trace_packet(log, "ab", 2);
  log.SetEnabled('P', true);
  trace_packet(log, "ab", 2);

  std::string const expected = "(!) index: 12 pages, 0.5 left\r\n"
                               "report of 2 lines\r\n  one\r\n  two\r\n"
                               "61 62\r\n";
  EXPECT_EQ(file.bytes(), expected);
  EXPECT_EQ(counter->bytes, expected.size() - 5);
  velt_test::expect_doc_examples_run("debug.md", __FILE__);
}
