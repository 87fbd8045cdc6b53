// What a handler sees of a failure, and what it can do.
#pragma once

#include <string>
#include <vector>

struct piece_of_work {
  wchar_t const* failure;  // for people
  std::string (*run)();
  bool is_needed;  // or can the service go on without it?
};

// Runs it and prints its failure. False if there is none.
bool attempt(piece_of_work const& work);

// Paths of the dumps below the current folder, sorted.
std::vector<std::string> dumps();
