// Settings of a service as typed values, from a UTF-8 text file with lines of
// the form
//
//   name: type = value
//
// A name ends at the first colon, a type at the first equals sign behind it, and
// a value at the end of the line; white space around each is dropped. Blank
// lines and lines that begin with # are passed over.
//
// The type words, and what each accepts, are setting_types(). "list of" and a
// type word makes a sequence, its elements separated by commas. As everywhere
// with push_back, one element alone is a scalar and none are the empty value.
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
  wchar_t const* accepts;  // for people, fits behind "not"
  // The value, or the empty one if this type does not accept the text.
  _value_t (*read)(std::wstring const& text);
};

std::span<setting_type const> setting_types();

// A line that is neither blank nor a comment. Throws EGeneric, with "Reason" (wide),
// if it is malformed.
setting read_line(std::wstring const& line);

// Throws ERuntimeException, with the path as "File", if there is no such file or
// it cannot be read.
settings_file read_settings(std::wstring const& path);
