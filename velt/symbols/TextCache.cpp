#include "velt/symbols/SymbolEngineInternal.h"

#include <unordered_map>

namespace velt::detail {
namespace {

constexpr std::size_t most_texts = 4096;

struct texts {
  unsigned changes;
  std::unordered_map<unsigned __int64, std::string> by_address;
};

// Never destroyed, like the engine. Guarded by `busy`.
texts* all = nullptr;
std::atomic_flag busy;

class attempt {
public:
  attempt() : entered(!busy.test_and_set(std::memory_order_acquire)) {}
  attempt(attempt const&) = delete;
  attempt& operator=(attempt const&) = delete;
  ~attempt() {
    if (entered) busy.clear(std::memory_order_release);
  }
  explicit operator bool() const { return entered; }

private:
  bool const entered;
};

void forget() {
  delete all;
  all = nullptr;
}

}  // namespace

std::string known_text(unsigned __int64 address) {
  attempt const inside;
  if (!inside || !all || all->changes != engine_changes) return {};
  auto const found = all->by_address.find(address);
  return found == all->by_address.end() ? std::string() : found->second;
}

void remember_text(unsigned __int64 address, std::string const& text, unsigned changes) noexcept {
  attempt const inside;
  if (!inside || changes != engine_changes) return;
  if (all && (all->changes != changes || all->by_address.size() == most_texts)) forget();
  try {
    if (!all) all = new texts{changes, {}};
    all->by_address.emplace(address, text);
  } catch (std::bad_alloc const&) {
  }
}

void forget_texts() {
  attempt const inside;
  if (inside) forget();
}

}  // namespace velt::detail
