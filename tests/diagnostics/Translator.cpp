// Translators of a program's own, which throw what they like, fail, or decline.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "velt/diagnostics/TranslatorInternal.h"

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
