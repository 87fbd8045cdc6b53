// Reads files through TFile, and settings from a file.
#pragma once

#include <string>
#include <vector>

#include "examples/typed_values/Settings.h"
#include "velt/os/File.h"

// Like TFile's constructor, but the exception has the path as "File".
TFile open_file(std::wstring const& path, unsigned long access, unsigned long disposition);

// Reads from the file's position on.
std::string read_to_end(TFile& file);

// Settings.h describes the lines, but here divide_string divides them: it drops double
// quotes, and a line with an unpaired double quote is malformed. Throws EGeneric, with
// the path as "File" and a "Text", for the first malformed line, for text that is not
// UTF-8, and if there is no setting at all.
std::vector<setting> load_settings(TFile& file, std::wstring const& path);
