#pragma once

#include <string>
#include <typeinfo>

#include "korvane/export.h"

// Both functions keep no state and may be called from any thread.

namespace korvane::common {

// The run-time type name as type_info gives it (mangled), a leading '*' dropped.
KORVANE_EXPORT std::string mangledTypeName(const std::type_info& type);
// The demangled, human-readable type name.
KORVANE_EXPORT std::string demangledTypeName(const std::type_info& type);

}  // namespace korvane::common
