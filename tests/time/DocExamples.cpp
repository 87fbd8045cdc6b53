// The examples of docs/time.md, run.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/DocExamples.h"
#include "velt/time/Stopwatches.h"
#include "velt/time/Time.h"

TEST(TimeDocExamples, StandOnThePageAsTheyRunHere) {
  velt_test::expect_doc_examples_run("time.md", __FILE__);
}

TEST(TimeDocExamples, CalendarTime) {
  _time_t const deadline = _time_t::mktime(std::string("2004-02-29T12:30:45.000"));
  _time_t const extended = deadline.nextlocalday() + 3600;  // one o'clock the next morning

  bool const late = _time_t::time() > extended;
  std::string const stamp = deadline.iso8601time();  // "2004-02-29T12:30:45.000"
  double const cell = deadline.varianttime();        // for a spreadsheet: 38046.52...

  EXPECT_TRUE(late);
  EXPECT_EQ(stamp, "2004-02-29T12:30:45.000");
  EXPECT_NEAR(cell, 38046.5213, 0.0001);
}

TEST(TimeDocExamples, InvalidTime) {
  _time_t const typed = _time_t::mktime(std::string("tomorrow, perhaps"));
  std::string const shown = typed.valid() ? typed.ctime() : "never";

  EXPECT_EQ(shown, "never");
}

TEST(TimeDocExamples, Stopwatches) {
  int laps = 0;
  auto const work = [&laps] { ++laps; };

  _pcounter_t watch;
  _thread_times_t cpu;
  work();
  double const first = watch.get_elapsed_restart();  // seconds, and the next lap begins
  work();
  double const second = watch.get_elapsed_restart();
  double const busy = cpu.get_elapsed();  // of that, the processor's time of this thread

  EXPECT_EQ(laps, 2);
  EXPECT_TRUE(first >= 0 && second >= 0 && busy >= 0);
}
