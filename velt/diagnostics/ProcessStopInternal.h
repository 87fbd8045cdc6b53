// Stops all other threads of the process while a dump is written.
#pragma once

#include <functional>
#include <memory>

namespace velt::detail {

// A helper thread stops the others and gets them going again: when it is told to,
// when the thread that asked for the stop has ended, or after 30 seconds. So nobody
// stays asleep, whatever becomes of the writer of the dump.
//
// The steps, by one thread: make the object before any lock is taken; take the
// locks that the writer needs; stop_others(); give the locks back; write, by
// run_on_helper() if need be; let_others_go(). The locks are free then, and nobody
// is left to take them but the writer and the threads that it makes.
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

  // Does the helper run? Not where the loader lock, which a thread takes when it
  // begins, is held too long.
  bool is_ready() const noexcept { return at == step::ready; }

  // False if a thread cannot be stopped; all go on then.
  bool stop_others() noexcept;

  // Has the helper do the work, which must not throw, and then let the others go.
  // The work outlives the calling thread if need be: it owns what it uses.
  void run_on_helper(std::function<void()> work) noexcept;

  // Returns when they go on.
  void let_others_go() noexcept;

private:
  enum class step { none, ready, stopped };
  class helper;

  std::shared_ptr<helper> const with;
  step at = step::none;
};

}  // namespace velt::detail
