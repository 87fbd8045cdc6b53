// The two kinds of work that the service gives to its pool.
#pragma once

#include "Paper.h"
#include "velt/threads/ThreadTask.h"

// Somebody waits for an order, so an exception is kept for him. A fault is logged
// where it happens, with the size of its dump.
class order final : public TThreadTask {
public:
  explicit order(SmartPtr<paper> its_content) : content(std::move(its_content)) {}
  void Run(SmartPtr<IThreadContext> const& context) override;

  // Logs what the order came to, or what RethrowException() throws. Waits for it.
  void log_result();

private:
  void work();

  SmartPtr<paper> const content;
  _value_t worth;
};

// Stock is counted for the log alone. What goes wrong in it nobody catches.
class count_of_stock final : public IThreadJob {
public:
  explicit count_of_stock(SmartPtr<paper> its_content) : content(std::move(its_content)) {}
  void Run(SmartPtr<IThreadContext> const& context) override;

private:
  SmartPtr<paper> const content;
};
