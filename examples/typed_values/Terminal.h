// Text for a terminal: laid out by the columns that characters take on a screen, with
// every character visible.
#pragma once

#include <string>

#include "velt/exceptions/EGeneric.h"

// The number of columns of the text. An East Asian character takes two.
int columns(std::wstring const& text);

// The text, shortened to at most `width` columns with an ellipsis at the end.
// Control characters become visible and have no effect on the terminal.
std::wstring clipped(std::wstring const& text, int width);

// The text, clipped or padded with blanks to exactly `width` columns.
std::wstring padded(std::wstring const& text, int width);

// The width of a report, so that it fits a terminal of 80 columns.
inline constexpr int report_width = 79;

// A heading of that width: a rule with one text at its left end, clipped if necessary,
// and another at its right end.
std::wstring heading(std::wstring const& about, std::wstring const& more);

enum class stream { output, error };

// Writes wide text to a console, and UTF-8 to a file or a pipe. Throws
// ESystemException, with the stream as "File".
void write(stream target, std::wstring const& text);

// Writes one line on standard error, whatever the message contains. A failure to write
// it is not reported; the status of the program must tell.
void complain(std::wstring const& message);
// The same, with the exception's "File" and "Text" as the message.
void complain(std::wstring const& program, EGeneric const& error);
