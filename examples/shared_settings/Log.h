// The log of the threads: a stream that writes to a file and to standard output,
// and the test that no line was broken on the way.
#pragma once

#include <map>
#include <string>

#include "velt/debug/DebugStream.h"

// How many lines each thread has written, by its name.
using line_counts = std::map<std::string, int>;

// Empties the file first. Throws ESystemException, with the path as "File", if it
// cannot be written.
TDebugStream new_log(std::wstring const& path);

// Writes "NAME line NUMBER: TEXT."; numbers count from 1, and the text must not
// have a line end.
void log_line(TDebugStream& log, std::string const& name, int number, std::wstring const& text);

// How many lines in a log's content are not whole, or not in the order of their
// thread, or missing.
int broken_lines(std::string const& content, line_counts const& written);
