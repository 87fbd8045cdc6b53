// Tasks whose work touches nothing but variables of its own. Compiled at several
// levels, and without the options that let a compiler expect faults.
#include <utility>

#include "velt/threads/ThreadPool.h"

namespace {

int recurse(int depth) {
  char volatile room[300];
  room[0] = static_cast<char>(depth);
  return depth == 0 ? 0 : recurse(depth + 1) + room[0];
}

int result;

}  // namespace

std::pair<SmartPtr<IThreadTask>, SmartPtr<IThreadTask>> ADD_RECURSIONS(IThreadPool& pool) {
  return {pool.AddJob([] { result = recurse(1); }),
          pool.AddJob([] { *static_cast<int volatile*>(nullptr) = 1; })};
}
