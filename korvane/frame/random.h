#pragma once

#include <string>

#include "korvane/export.h"

namespace korvane::common {

// A random text of `length` characters from A-Z a-z 0-9, drawn from the operating
// system's cryptographically secure source: client ids are bearer tokens.
// Thread-safe.
KORVANE_EXPORT std::string randomString(unsigned char length);

}  // namespace korvane::common
