#include "velt/diagnostics/BoundsChecker.h"

IBoundsChecker::IBoundsChecker() = default;
IBoundsChecker::IBoundsChecker(IBoundsChecker const&) = default;
IBoundsChecker& IBoundsChecker::operator=(IBoundsChecker const&) = default;
IBoundsChecker::~IBoundsChecker() = default;
