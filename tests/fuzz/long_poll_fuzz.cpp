// Posts a script of bodies through the long-poll transport to one protocol service, so
// that state carried across requests (clients, subscriptions, held connects, pending
// messages, sweeps) is explored. See bayeux_fuzz_world.h for the script's form.

#include <cstdint>
#include <string_view>

#include "tests/fuzz/bayeux_fuzz_world.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    korvane::bayeux::fuzzing::FuzzWorld().postEach(std::string_view(reinterpret_cast<const char*>(bytes), size));
    return 0;
}
