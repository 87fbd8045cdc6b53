#include "tests/faults/Recursions.h"

#include <cstddef>

namespace velt_test {
namespace {

class Counted {
public:
  explicit Counted(long& objects) : count(objects) { ++count; }
  ~Counted() { --count; }

private:
  long& count;
};

struct Uncounted {
  explicit Uncounted(long&) {}
};

// Where in the frame the stack runs out depends on its size: in the storing of a
// register, in a call, in the probe of a frame of more than a page.
template <std::size_t size, class Object = Uncounted>
[[gnu::noipa]] int plain(long& objects) {
  [[maybe_unused]] Object const object(objects);
  char volatile room[size];
  room[0] = 1;
  return plain<size, Object>(objects) + room[0];
}

[[gnu::noipa]] int of_many_sizes(long& objects, std::size_t size) {
  Counted const object(objects);
  auto const room = static_cast<char volatile*>(__builtin_alloca(size));
  room[0] = 1;
  return of_many_sizes(objects, size % 20'000 + 104) + room[0];
}

// The overflow is somebody else's, who knows no exceptions.
[[gnu::noipa]] int callee(int depth) {
  char volatile room[3000];
  room[0] = 1;
  return depth == 0 ? room[0] : callee(depth - 1) + room[0];
}

[[gnu::noipa]] int calling_first(long& objects) {
  Counted const object(objects);
  int const below = callee(3);
  return calling_first(objects) + below;
}

[[gnu::noipa]] int under_other_handlers(long& objects) {
  try {
    Counted const object(objects);
    return under_other_handlers(objects) + 1;
  } catch (int) {
    return 0;
  }
}

template <auto recurse>
void run(long& objects) {
  recurse(objects);
}

constexpr Recursion all[] = {
    {"SmallFrames", run<plain<16>>},
    {"FramesOfHundredsOfBytes", run<plain<300>>},
    {"FramesOfNearlyAPage", run<plain<3900>>},
    {"FramesOfPages", run<plain<20'000>>},
    {"SmallFramesWithObjects", run<plain<16, Counted>>},
    {"FramesOfHundredsOfBytesWithObjects", run<plain<300, Counted>>},
    {"FramesOfNearlyAPageWithObjects", run<plain<3900, Counted>>},
    {"FramesOfPagesWithObjects", run<plain<20'000, Counted>>},
    {"FramesOfManySizes", [](long& objects) { of_many_sizes(objects, 8); }},
    {"InACallee", run<calling_first>},
    {"UnderOtherHandlers", run<under_other_handlers>},
};

}  // namespace

std::span<Recursion const> VELT_RECURSIONS() { return all; }

}  // namespace velt_test
