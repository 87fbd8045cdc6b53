// Stops all other threads of the process while a dump is written.
#pragma once

#include <functional>
#include <memory>

namespace velt::detail {

// A helper thread stops the others. It resumes them when it is told to, when the
// thread that asked for the stop has ended, or after 30 seconds. So no thread stays
// stopped, even if the writer of the dump fails.
//
// One thread performs these steps: construct the object before taking any lock; take
// symbol_lock(); stop_others(); write, with run_on_helper() if needed; let_others_go().
// While it stops the others, the helper owns all other locks that the writer needs.
// During the write they are free, and only the writer and the threads that it creates can
// take them.
//
// No wait here is alertable.
class [[nodiscard]] process_stop {
public:
  // Starts the helper. Throws std::bad_alloc and ESystemException.
  process_stop();
  process_stop(process_stop const&) = delete;
  process_stop& operator=(process_stop const&) = delete;
  // Lets the others go.
  ~process_stop();

  // Does the helper run? It needs the loader lock to begin, so it does not run if
  // another thread holds that lock too long.
  bool is_ready() const noexcept { return at == step::ready; }

  // For holders of symbol_lock(). False if the locks cannot be taken in a second, or if a
  // thread cannot be stopped; all run again then.
  bool stop_others() noexcept;

  // Runs the work on the helper, which then lets the others go. The work must not
  // throw. It may outlive the calling thread, so it must own everything that it uses.
  void run_on_helper(std::function<void()> work) noexcept;

  // Returns when they run again.
  void let_others_go() noexcept;

private:
  enum class step { none, ready, stopped };
  class helper;

  std::shared_ptr<helper> const with;
  step at = step::none;
};

}  // namespace velt::detail
