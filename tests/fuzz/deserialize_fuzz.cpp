// Feeds arbitrary bytes to the Bayeux reader on both sides of the protocol and writes
// whatever it reads, message by message, as the server writes what it sends. Refusals are
// fine; crashes, leaks, sanitizer reports and a reader that changes its input are not.
// Which texts read back as what is pinned byte for byte by the codec's unit tests.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "korvane/codec/deserialize.h"
#include "korvane/codec/serialize.h"

namespace {

using korvane::Message;
using korvane::common::DataBuffer;
using namespace korvane::bayeux;

void readAndWrite(DataBuffer& body, bool isRequest) {
    std::unique_ptr<Message> message;
    try {
        message = deserializeBayeuxMessage(body, isRequest);
    } catch (const std::invalid_argument&) {
        return;
    }
    DataBuffer out;
    if (auto* batch = dynamic_cast<BayeuxContainer*>(message.get())) {
        for (auto& element : batch->messages) {
            serializeBayeuxMessage(std::move(element), out);
        }
    } else {
        serializeBayeuxMessage(std::move(message), out);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(bytes), size);
    DataBuffer body(input);
    readAndWrite(body, true);
    readAndWrite(body, false);
    if (body.view() != input) {
        std::fprintf(stderr, "the reader changed its input\n");
        std::abort();
    }
    return 0;
}
