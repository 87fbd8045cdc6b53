#include "Work.h"

// Not inlined, or the stacks would not show these functions under their own names and
// lines.

namespace {

[[gnu::noinline]] void book(int& count, TLock const& /*of the stock*/,
                            TLock const& /*of the accounts*/) {
  ++count;
}

// Waits until the other thread has its first lock too: otherwise the two would seldom
// dead-lock.
[[gnu::noinline]] void meet(TEvent& mine, TEvent const& others) {
  mine.Set();
  others.WaitForSignal();
}

bool is_prime(int candidate) {
  for (int divisor = 2; divisor <= candidate / divisor; ++divisor)
    if (candidate % divisor == 0) return false;
  return true;
}

}  // namespace

[[gnu::noinline]] void sell(shop& all) {
  TLock const stock(all.stock);
  meet(all.selling, all.taking_back);
  book(all.sales, stock, TLock(all.accounts));
}

[[gnu::noinline]] void take_back(shop& all) {
  TLock const accounts(all.accounts);
  meet(all.taking_back, all.selling);
  book(all.returns, TLock(all.stock), accounts);
}

[[gnu::noinline]] void forecast(shop& all) {
  for (int candidate = 2; candidate < 1'000'000; ++candidate)
    if (is_prime(candidate)) all.largest_prime = candidate;
}
