// The two kinds of work that the service gives to its pool.
#pragma once

#include "Paper.h"
#include "velt/threads/ThreadTask.h"

// Somebody waits for an order, so the task keeps its exception. A fault is logged where
// it happens, with the size of its dump.
class order final : public TThreadTask {
public:
  explicit order(SmartPtr<paper> its_content) : content(std::move(its_content)) {}
  void Run(SmartPtr<IThreadContext> const& context) override;

  // Waits for the order. Logs what it came to, or what RethrowException() throws.
  void log_result();

private:
  void work();

  SmartPtr<paper> const content;
  _value_t worth;
};

// Stock is counted for the log only. Nobody catches its exceptions.
class count_of_stock final : public IThreadJob {
public:
  explicit count_of_stock(SmartPtr<paper> its_content) : content(std::move(its_content)) {}
  void Run(SmartPtr<IThreadContext> const& context) override;

private:
  SmartPtr<paper> const content;
};
