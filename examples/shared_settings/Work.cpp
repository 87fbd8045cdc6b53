#include "Work.h"

#include <windows.h>

#include <comutil.h>

#include "Log.h"
#include "examples/typed_values/Terminal.h"
#include "velt/text/Encoding.h"
#include "velt/text/Numbers.h"

namespace {

// A prime number, so that the log shows each setting at some time.
constexpr int operations_for_a_line = 19;
constexpr int longest_text = 30;

// Contains a colon, which no name of a setting can contain.
constexpr wchar_t revision_name[] = L":revision";

struct observation {
  _value_t value;
  int revision;
};

observation look_up(setting const& item, shared_settings& settings) {
  TReadLock const hold(settings.timed_lock);
  return {settings.list.GetProperty(item.name.c_str()), revision(settings)};
}

observation store(setting const& item, shared_settings& settings) {
  TLock const hold(settings.timed_lock);
  int const next = revision(settings) + 1;
  settings.list.PutProperty(item.name.c_str(), item.value);
  settings.list.PutProperty(revision_name, next);
  return {item.value, next};
}

std::wstring text_of(_value_t const& value) {
  if (value.empty()) return L"nothing";
  return clipped(as_wstring(value.as_string()), longest_text);
}

std::wstring line_of(setting const& item, observation const& seen) {
  return clipped(item.name, longest_text) + L" = " + text_of(seen.value) + L" in revision " +
         itow(seen.revision);
}

}  // namespace

void fill(shared_settings& settings, std::vector<setting> const& items) {
  for (auto const& item : items) settings.list.PutProperty(item.name.c_str(), item.value);
  settings.list.PutProperty(revision_name, 0);
}

int revision(shared_settings const& settings) { return settings.list.GetProperty(revision_name); }

worker work(worker self, std::vector<setting> items, shared_settings& settings, _pcounter_t watch,
            double seconds) {
  auto const operate = self.does == task::read ? look_up : store;
  while (watch.get_elapsed() < seconds) {
    auto const& item = items[self.operations % items.size()];
    auto const seen = operate(item, settings);
    if (self.operations++ % operations_for_a_line == 0)
      log_line(settings.log, self.name, ++self.lines, line_of(item, seen));
    Sleep(1);  // the threads of a service have other work too
  }
  return self;
}
