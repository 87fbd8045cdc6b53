// A paper is a small text file with lines of the form "goods = quantity". What it
// is worth is the sum of the quantities, each times the price of its goods.
#pragma once

#include <string>

#include "velt/base/SmartPtr.h"
#include "velt/os/File.h"
#include "velt/value/Value.h"

class paper : public SmartPtrObj {
public:
  // Opens it. Throws ESystemException, with the path as "File".
  paper(std::wstring const& folder, std::wstring const& its_name);
  ~paper() noexcept override {}

  // Reads it to its end; what it is worth, in cents. Throws EGeneric, with "File"
  // and "Line", if a quantity is no number. Goods without a price are a mistake
  // that nobody has thought of.
  _value_t worth();

  std::string const name;

private:
  TFile file;
};

// As 1234.50.
std::string money(_value_t const& cents);
