// The log of the threads: a stream that writes to a file and to standard output, and a
// check that no line is broken.
#pragma once

#include <map>
#include <string>

#include "velt/debug/DebugStream.h"

// The number of lines that each thread has written, by the thread's name.
using line_counts = std::map<std::string, int>;

// Empties the file first. Throws ESystemException, with the path as "File", if the file
// cannot be written.
TDebugStream new_log(std::wstring const& path);

// Writes "NAME line NUMBER: TEXT."; numbers count from 1, and the text must not
// have a line end.
void log_line(TDebugStream& log, std::string const& name, int number, std::wstring const& text);

// The number of lines in a log's content that are broken, out of their thread's order,
// or missing.
int broken_lines(std::string const& content, line_counts const& written);
