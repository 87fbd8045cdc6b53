#include "velt/threads/RunawayTextInternal.h"

#include <string>
#include <typeinfo>

#include "velt/base/TypeName.h"
#include "velt/debug/DebugStream.h"

namespace velt::detail {

void write_exception(TDebugStreamSession& session, std::exception const& exception) {
  session << readable_name(typeid(exception)) << ':';
  std::string const text = exception.what();
  if (text.find('\n') != text.npos) session << '\n';
  session << text;
}

}  // namespace velt::detail
