#include "tests/faults/PlainModule.h"

namespace plain_module {
namespace {

struct Scope {
  callback at_end;
  void* context;
  ~Scope() { at_end(context); }
};

}  // namespace

void call(callback function, callback at_end, void* context) {
  Scope const scope{at_end, context};
  function(context);
}

bool catches(callback function, void* context) {
  try {
    function(context);
  } catch (...) {
    return true;
  }
  return false;
}

}  // namespace plain_module
