#include "velt/text/Case.h"
#include "velt/text/CharacterClasses.h"
#include "velt/text/Encoding.h"
#include "velt/text/Format.h"
#include "velt/text/Numbers.h"
#include "velt/text/Trim.h"

#include <ctype.h>
#include <stdlib.h>
#include <tchar.h>
#include <windows.h>
#include <comdef.h>
#include <locale>

#include "OverloadUses.h"

TEST(HeadersBeforeThePlatforms, ResolveEveryOverload) {
  use_names_of_the_platform();
  use_com_strings();
}
