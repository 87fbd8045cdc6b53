// What the sources of a crashing program share.
#pragma once

namespace crash {

void say(char const* text);

// Says that it was destroyed.
struct Note {
  ~Note();
};

extern int const volatile* volatile nowhere;

[[gnu::noipa]] void nothing();
[[gnu::noipa]] int read(int const volatile* address);

// Reads in a frame that has an object to destroy, and was compiled without the
// option that lets it.
int read_without_the_option(int const volatile* address);

}  // namespace crash
