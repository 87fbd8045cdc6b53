// Settings of a service as typed values, from a UTF-8 text file with lines of
// the form
//
//   name: type = value
//
// The name ends at the first colon, the type at the first equals sign after it, and the
// value at the end of the line. White space around each is dropped. Blank lines and
// lines that begin with # are ignored.
//
// setting_types() lists the type words and the text that each accepts. "list of" and a
// type word makes a sequence with its elements separated by commas. As always with
// push_back, one element gives a scalar, and no element gives the empty value.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "velt/exceptions/EGeneric.h"
#include "velt/value/Value.h"

struct setting {
  std::wstring name;
  _value_t value;
};

struct settings_file {
  std::vector<setting> settings;
  // One for each malformed line: "Reason" (wide) and "Line", counted from 1.
  std::vector<EGeneric> malformed;
};

struct setting_type {
  wchar_t const* word;
  wchar_t const* accepts;  // for people; completes "not ..."
  // The value; the empty value if this type does not accept the text.
  _value_t (*read)(std::wstring const& text);
};

std::span<setting_type const> setting_types();

// Reads a line that is neither blank nor a comment. Throws EGeneric, with "Reason"
// (wide), if the line is malformed.
setting read_line(std::wstring const& line);

// Throws ERuntimeException, with the path as "File", if the file does not exist or
// cannot be read.
settings_file read_settings(std::wstring const& path);
