#include <stdexcept>

namespace bench {
namespace {

int volatile depth = 10;

struct Scope {
  ~Scope() { asm volatile("" : : "r"(this) : "memory"); }
};

[[gnu::noipa]] void descend(int frames) {
  Scope const scope;
  if (frames == 0) throw std::runtime_error("The settings cannot be read");
  descend(frames - 1);
  asm volatile("");
}

}  // namespace

__declspec(dllexport) void VELT_BENCH_THROW() {
  try {
    descend(depth);
  } catch (std::runtime_error const& error) {
    asm volatile("" : : "r"(&error) : "memory");
  }
}

}  // namespace bench
