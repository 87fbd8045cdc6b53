// A shop whose two locks are taken in two orders.
#pragma once

#include "velt/locks/Event.h"
#include "velt/locks/Mutex.h"

struct shop {
  TMutex stock, accounts;
  TEvent selling, taking_back;  // each has its first lock for the first time
  int sales = 0, returns = 0;   // under both locks
  int largest_prime = 2;
};

// Each is one piece of work, which is done again and again.
void sell(shop& all);
void take_back(shop& all);
void forecast(shop& all);
