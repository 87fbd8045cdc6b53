// A program that stops in a debugger. The comment below a variable is what GDB shows of it;
// N stands for a thread's id, and P for an address.
#include <windows.h>

#include <comdef.h>

#include "velt/velt.h"

struct Paper : SmartPtrObj {};

[[gnu::noinline]] static void stop_here() { __asm__(""); }

int main() {
  SaveMiniDumpOnCppException = false;
  _value_t const nothing;
  // nothing = empty
  _value_t const number = -42;
  // number = int -42
  _value_t const count = 7ul;
  // count = unsigned long 7
  _value_t const big = -5000000000ll;
  // big = __int64 -5000000000
  _value_t const half = 0.5;
  // half = double 0.5
  _value_t const flag = true;
  // flag = bool true
  _value_t const text = "mill.stock";
  // text = std::string "mill.stock"
  _value_t const blank = "";
  // blank = std::string ""
  _value_t const wide = L"\u0141\u00f3d\u017a";
  // wide = std::wstring L"Łódź"
  _value_t const com = _bstr_t(L"Zo\u00eb");
  // com = _bstr_t L"Zoë"
  _value_t const day = _time_t(1078057845);
  // day = _time_t 2004-02-29 12:30:45 UTC
  _value_t list = std::vector<int>{1, 2};
  // list = 2 x int = {1, 2}
  _value_t const view = list[1];
  // view = view of int 2
  _value_t const flags = std::vector<bool>{true, false};
  // flags = 2 x bool = {true, false}
  _value_t const texts = std::vector<std::string>{"a", ""};
  // texts = 2 x std::string = {"a", ""}
  auto const paper = MakeCounted<Paper>();
  // paper = SmartPtr<Paper> to Paper (2 references) = {get() = P}
  SmartPtr<SmartPtrObj> const null;
  // null = SmartPtr<SmartPtrObj> (null)
  _value_t const object = paper;
  // object = SmartPtr<SmartPtrObj> to Paper (2 references) = {get() = P}
  EGeneric const error({"Text", "No room"}, {"Rooms", 12});
  // error = EGeneric = {Text = std::string "No room", Rooms = int 12}
  EGeneric const silent;
  // silent = EGeneric without values
  _time_t const never = _time_t::invalid;
  // never = _time_t invalid
  _time_t const late = 1ll << 60;
  // late = _time_t 1152921504606846976 s
  TMultiLock open;
  // open = not_locked
  TMultiLock lock;
  // lock = locked_write, N:R,N:W
  TReadLock const reading(lock);
  TLock const writing(lock);
  stop_here();
}
