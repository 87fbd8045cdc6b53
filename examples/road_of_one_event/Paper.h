// A paper is a small text file with lines of the form "goods = quantity". Its worth is
// the sum of the quantities, each times the price of its goods.
#pragma once

#include <string>

#include "velt/base/SmartPtr.h"
#include "velt/os/File.h"
#include "velt/value/Value.h"

class paper : public SmartPtrObj {
public:
  // Opens the file. Throws ESystemException, with the path as "File".
  paper(std::wstring const& folder, std::wstring const& its_name);

  // Reads the file to its end and returns the worth in cents. Throws EGeneric, with
  // "File" and "Line", if a quantity is not a number. Does not handle goods without a
  // price: this is the mistake.
  _value_t worth();

  std::string const name;

private:
  TFile file;
};

// For example "1234.50".
std::string money(_value_t const& cents);
