// The heap allocations of the srte-scale process (operator new calls), for per-phase figures.
#pragma once

#include "Mosk/Types.h"

namespace SrTeScale {

// False in sanitizer builds, where the sanitizer's allocator stays in place and nothing is
// counted.
bool allocationsCounted();
// Allocations since the process started.
U64 allocationCount();

}  // namespace SrTeScale
