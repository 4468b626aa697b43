// Feeds a script of text frames to one WebSocket connection of the server transport, on
// one protocol service. See bayeux_fuzz_world.h for the script's form.

#include <cstdint>
#include <string_view>

#include "tests/fuzz/bayeux_fuzz_world.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    korvane::bayeux::fuzzing::FuzzWorld().sendEach(std::string_view(reinterpret_cast<const char*>(bytes), size));
    return 0;
}
