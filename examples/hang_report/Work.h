// A shop with two locks, which its functions take in different orders.
#pragma once

#include "velt/locks/Event.h"
#include "velt/locks/Mutex.h"

struct shop {
  TMutex stock, accounts;
  TEvent selling, taking_back;  // set when each has its first lock
  int sales = 0, returns = 0;   // under both locks
  int largest_prime = 2;
};

// Each call is one piece of work. The threads repeat it.
void sell(shop& all);
void take_back(shop& all);
void forecast(shop& all);
