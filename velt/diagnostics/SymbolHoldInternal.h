// A hold on the symbol engine for a scope.
#pragma once

#include "velt/diagnostics/Symbols.h"

namespace velt::detail {

class [[nodiscard]] symbol_hold {
public:
  explicit symbol_hold(bool wanted = true) : holds(wanted && SymInitialize()) {}
  ~symbol_hold() {
    if (holds) SymCleanup();
  }
  symbol_hold(symbol_hold const&) = delete;
  symbol_hold& operator=(symbol_hold const&) = delete;

  // Is the engine there?
  explicit operator bool() const noexcept { return holds; }

private:
  bool holds;
};

}  // namespace velt::detail
