// A handler that prints everything it can find out about a failure.
#pragma once

#include <string>
#include <vector>

struct piece_of_work {
  wchar_t const* failure;  // for people
  std::string (*run)();
  bool is_needed;  // false if the service can go on without it
};

// Runs the work and prints its failure. False if it does not fail.
bool attempt(piece_of_work const& work);

// The sorted paths of the dumps below the current folder.
std::vector<std::string> dumps();
