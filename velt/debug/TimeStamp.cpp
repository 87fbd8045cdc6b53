#include "velt/debug/TimeStamp.h"

#include <windows.h>

#include <time.h>

#include "velt/text/Format.h"

std::string now() {
  auto const seconds = _time64(nullptr);
  tm local = {};
  _localtime64_s(&local, &seconds);
  char text[260];
  return {text, strftime(text, sizeof text, "%d.%m.%y %H:%M:%S ", &local)};
}

std::string now2(unsigned short& lastDay) {
  SYSTEMTIME time;
  GetLocalTime(&time);
  auto const clock = format_string("%02hd:%02hd:%02hd.%03hd ", time.wHour, time.wMinute,
                                   time.wSecond, time.wMilliseconds);
  if (time.wDay == lastDay) return clock;
  lastDay = time.wDay;
  return format_string("%02hd.%02hd.%04hd\n", time.wDay, time.wMonth, time.wYear) + clock;
}
