// Files through TFile, and the settings that one holds.
#pragma once

#include <string>
#include <vector>

#include "examples/typed_values/Settings.h"
#include "velt/os/File.h"

// TFile's constructor, with the path as "File" in the exception.
TFile open_file(std::wstring const& path, unsigned long access, unsigned long disposition);

// From the file's position on.
std::string read_to_end(TFile& file);

// The lines are as Settings.h says, but taken apart by divide_string: a double
// quote is dropped, and one that has no partner on its line is refused. Throws
// EGeneric, with the path as "File" and a "Text", for the first malformed line,
// for what is not UTF-8 text, and if there is no setting at all.
std::vector<setting> load_settings(TFile& file, std::wstring const& path);
