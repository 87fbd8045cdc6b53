// Translators of a program's own, which throw what they like, fail, or decline.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "velt/faults/TranslatorInternal.h"

namespace {

std::string calls;

int const volatile* volatile nowhere = reinterpret_cast<int const volatile*>(0x10);
int volatile result;

[[gnu::noipa]] void nothing() {}

class Translated {
public:
  explicit Translated(structured_exception_translator translator)
      : previous(velt::detail::set_translator(translator)) {
    calls.clear();
  }
  ~Translated() { velt::detail::set_translator(previous); }

private:
  structured_exception_translator const previous;
};

constexpr DWORD probe_code = 0xE0000042;

// Called where no frame took the exception; lets the process go on.
class IgnoredProbes {
public:
  IgnoredProbes() : previous(SetUnhandledExceptionFilter(ignore)) {}
  ~IgnoredProbes() { SetUnhandledExceptionFilter(previous); }

private:
  static LONG CALLBACK ignore(EXCEPTION_POINTERS*) {
    calls += "unhandled ";
    return EXCEPTION_CONTINUE_EXECUTION;
  }
  LPTOP_LEVEL_EXCEPTION_FILTER const previous;
};

void raise_probe() { RaiseException(probe_code, 0, 0, nullptr); }

}  // namespace

TEST(Translator, IsGivenCodeAndRecordsAndMayThrowAnything) {
  Translated const translated([](unsigned int code, EXCEPTION_POINTERS* pointers) {
    EXPECT_EQ(code, probe_code);
    EXPECT_EQ(pointers->ExceptionRecord->ExceptionCode, probe_code);
    EXPECT_TRUE(pointers->ContextRecord->Rip);
    throw 7;
  });
  int caught = 0;
  try {
    raise_probe();
  } catch (int value) {
    caught = value;
  }
  EXPECT_EQ(caught, 7);
}

// Every frame with a try block asks, and none takes the fault.
TEST(Translator, MayDecline) {
  IgnoredProbes const probes;
  Translated const translated([](unsigned int, EXCEPTION_POINTERS*) { calls += "asked "; });
  try {
    try {
      raise_probe();
      calls += "went on";
    } catch (int) {
      calls += "caught";
    }
  } catch (...) {
    calls += "caught";
  }
  EXPECT_TRUE(calls.starts_with("asked ")) << calls;
  EXPECT_TRUE(calls.ends_with("asked unhandled went on")) << calls;
}

TEST(Translator, IsNotAskedForThrows) {
  Translated const translated([](unsigned int, EXCEPTION_POINTERS*) { calls += "asked"; });
  IgnoredProbes const probes;
  try {
    throw 1;
  } catch (int) {
    RaiseException(0xE06D7363, 0, 0, nullptr);
  }
  EXPECT_EQ(calls, "unhandled ");
}

// A fault in a translator would be the next fault to translate, and so on.
TEST(Translator, IsNotAskedForItsOwnFaults) {
  IgnoredProbes const probes;
  Translated const translated([](unsigned int, EXCEPTION_POINTERS*) {
    calls += "asked ";
    raise_probe();
    throw 1;
  });
  try {
    raise_probe();
  } catch (int) {
    calls += "caught";
  }
  EXPECT_EQ(calls, "asked unhandled caught");
}

// What it catches itself is translated, and does not get in the way of what it
// throws then.
TEST(Translator, MayCatchFaultsOfItsOwn) {
  Translated const translated([](unsigned int, EXCEPTION_POINTERS* pointers) {
    calls += "asked ";
    if (pointers->ExceptionRecord->ExceptionInformation[1] != 0x10) throw 2;
    try {
      result = nowhere[1];
    } catch (int) {
      calls += "caught inside ";
    }
    throw 1;
  });
  auto const address = nowhere;
  for (int round = 0; round < 2; ++round) {
    try {
      nothing();
    } catch (...) {
      calls += "wrong handler ";
    }
    try {
      result = *address;
    } catch (int) {
      calls += "caught. ";
    }
  }
  EXPECT_EQ(calls, "asked asked caught inside caught. asked asked caught inside caught. ");
}

// Frames without a call site at the place of the fault, written by hand.
#define VELT_FRAME(NAME, IN_PROLOGUE, BEHIND)                    \
  extern "C" int NAME(int const volatile* address);              \
  asm(".text\n.def " #NAME "; .scl 2; .type 32; .endef\n"        \
      ".seh_proc " #NAME "\n" #NAME ":\n"                        \
      "subq $40, %rsp\n.seh_stackalloc 40\n" IN_PROLOGUE         \
      "\nnop\n.seh_endprologue\n" BEHIND                         \
      "\nnop\naddq $40, %rsp\nret\n"                            \
      ".seh_handler __gxx_personality_seh0, @unwind, @except\n"  \
      ".seh_handlerdata\n.byte 0xff, 0xff, 1, 0\n.text\n.seh_endproc\n")
VELT_FRAME(velt_test_read_in_prologue, "movl (%rcx), %eax", "");
VELT_FRAME(velt_test_read_below_prologue, "call velt_test_read_in_prologue", "");
VELT_FRAME(velt_test_read_uncovered, "", "movl (%rcx), %eax");

namespace {

// Makes the faults of the processor look like another kind.
class Disguised {
public:
  explicit Disguised(DWORD wanted) : handler(AddVectoredExceptionHandler(1, disguise)) {
    code = wanted;
  }
  ~Disguised() { RemoveVectoredExceptionHandler(handler); }

private:
  static LONG CALLBACK disguise(EXCEPTION_POINTERS* pointers) {
    if (pointers->ExceptionRecord->ExceptionCode == EXCEPTION_ACCESS_VIOLATION)
      pointers->ExceptionRecord->ExceptionCode = code;
    return EXCEPTION_CONTINUE_SEARCH;
  }
  static inline DWORD code;
  void* const handler;
};

unsigned int code_thrown_for(int (*read)(int const volatile*)) {
  Translated const translated([](unsigned int code, EXCEPTION_POINTERS*) { throw code; });
  try {
    read(nowhere);
  } catch (unsigned int code) {
    return code;
  }
  return 0;
}

}  // namespace

// The second as from a probe of the stack.
TEST(Translator, ThrowsPastAPrologue) {
  EXPECT_EQ(code_thrown_for(velt_test_read_in_prologue), EXCEPTION_ACCESS_VIOLATION);
  EXPECT_EQ(code_thrown_for(velt_test_read_below_prologue), EXCEPTION_ACCESS_VIOLATION);
}

// The stack may run out at instructions that cannot fault otherwise. (That other
// faults there end the process is a test of crashes.)
TEST(Translator, ThrowsForAStackOverflowFromAnyInstruction) {
  Disguised const overflow(EXCEPTION_STACK_OVERFLOW);
  EXPECT_EQ(code_thrown_for(velt_test_read_uncovered), EXCEPTION_STACK_OVERFLOW);
}
