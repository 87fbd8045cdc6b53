#include "velt/faults/CallSitesInternal.h"

#include <cstring>

namespace velt::detail {
namespace {

// Reads the numbers of the compiler's exception tables, which are in DWARF format.
class table_reader {
public:
  static constexpr BYTE omitted = 0xFF;

  explicit table_reader(BYTE const* position) noexcept : at(position) {}

  BYTE const* position() const noexcept { return at; }

  BYTE byte() noexcept { return *at++; }

  ULONG64 unsigned_number() noexcept { return leb128(nullptr); }

  LONG64 signed_number() noexcept {
    unsigned bits = 0;
    ULONG64 number = leb128(&bits);
    bool const negative = at[-1] & 0x40;
    if (negative && bits < 64) number |= ~ULONG64{0} << bits;
    return static_cast<LONG64>(number);
  }

  // A number in one of the formats that an encoding byte names.
  ULONG64 number(BYTE encoding) noexcept {
    switch (encoding & 0x0F) {
      case 0x01:
      case 0x09:
        return unsigned_number();
      case 0x02:
      case 0x0A:
        return fixed<USHORT>();
      case 0x03:
      case 0x0B:
        return fixed<ULONG>();
      default:
        return fixed<ULONG64>();
    }
  }

private:
  template <class Number>
  Number fixed() noexcept {
    Number number;
    std::memcpy(&number, at, sizeof number);
    at += sizeof number;
    return number;
  }

  ULONG64 leb128(unsigned* bits) noexcept {
    ULONG64 number = 0;
    unsigned shift = 0;
    BYTE next;
    do {
      next = byte();
      number |= static_cast<ULONG64>(next & 0x7F) << shift;
      shift += 7;
    } while (next & 0x80);
    if (bits) *bits = shift;
    return number;
  }

  BYTE const* at;
};

}  // namespace

std::optional<call_site> find_call_site(void const* table, ULONG64 offset) noexcept {
  if (!table) return {};
  table_reader header(static_cast<BYTE const*>(table));
  if (BYTE const encoding = header.byte(); encoding != table_reader::omitted)
    header.number(encoding);
  if (header.byte() != table_reader::omitted) header.unsigned_number();
  BYTE const encoding = header.byte();
  ULONG64 const size = header.unsigned_number();
  BYTE const* const actions = header.position() + size;

  for (table_reader sites(header.position()); sites.position() < actions;) {
    ULONG64 const start = sites.number(encoding);
    ULONG64 const length = sites.number(encoding);
    ULONG64 const landing_pad = sites.number(encoding);
    ULONG64 const action = sites.unsigned_number();
    if (offset - start < length)
      return call_site{landing_pad, action ? actions + action - 1 : nullptr};
  }
  return {};
}

namespace {

template <class Predicate>
bool any_of_filters(BYTE const* actions, Predicate predicate) noexcept {
  while (actions) {
    table_reader record(actions);
    if (predicate(record.signed_number())) return true;
    BYTE const* const link = record.position();
    LONG64 const distance = record.signed_number();
    actions = distance ? link + distance : nullptr;
  }
  return false;
}

}  // namespace

bool has_catch(BYTE const* actions) noexcept {
  return any_of_filters(actions, [](LONG64 filter) { return filter > 0; });
}

bool has_specification(BYTE const* actions) noexcept {
  return any_of_filters(actions, [](LONG64 filter) { return filter < 0; });
}

}  // namespace velt::detail
