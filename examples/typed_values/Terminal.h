// Text for a terminal: laid out by the columns that characters take on a
// screen, and written so that all of it shows.
#pragma once

#include <string>

#include "velt/exceptions/EGeneric.h"

// The columns of the text, two for a character of East Asia.
int columns(std::wstring const& text);

// The text, shortened to at most `width` columns with an ellipsis at the end.
// Control characters become visible and have no effect on the terminal.
std::wstring clipped(std::wstring const& text, int width);

// The text clipped, or filled up with blanks, to exactly `width` columns.
std::wstring padded(std::wstring const& text, int width);

// No report is wider, so that it fits a terminal of 80 columns.
inline constexpr int report_width = 79;

// A line of that width: what a part is about at the left end of a rule, clipped if
// need be, and more at its right one.
std::wstring heading(std::wstring const& about, std::wstring const& more);

enum class stream { output, error };

// Writes to a console as it is, to a file or a pipe in UTF-8. Throws
// ESystemException, with the stream as "File".
void write(stream target, std::wstring const& text);

// One line on standard error, whatever the message holds. Where it cannot be
// written, the status of the program must tell.
void complain(std::wstring const& message);
// The same with what the exception has as "File" and as "Text".
void complain(std::wstring const& program, EGeneric const& error);
