// Posts a script of bodies through the long-poll transport to one protocol service, so
// that state carried across requests (clients, subscriptions, held connects, pending
// messages, sweeps) is explored. See bayeux_fuzz_world.h for the script's form.
// Refusals are fine; crashes, leaks, sanitizer reports and non-UTF-8 output are not.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/http.h"
#include "korvane/frame/one_shot_publisher.h"
#include "tests/fuzz/bayeux_fuzz_world.h"

namespace {

using namespace korvane;
using namespace korvane::bayeux;
using namespace korvane::bayeux::fuzzing;

using BodyReader = reactive_streams::CallbackSubscriber<common::DataBuffer>;

// Reads a response body as the host writes it; a held connect's body arrives later,
// when the clock moves. The readers live as long as the world.
void readResponse(std::unique_ptr<Message> reply, FuzzWorld& world,
                  std::vector<std::shared_ptr<BodyReader>>& readers) {
    auto* response = dynamic_cast<http::HttpResponse*>(reply.get());
    if (response == nullptr) {
        fail("the long-poll transport answered with something other than an HTTP response");
    }
    const bool json = response->status == 200;
    auto reader = std::make_shared<BodyReader>([&world, json](common::DataBuffer&& chunk) {
        world.heard(chunk.view(), json ? "a JSON body" : "an error body");
    });
    readers.push_back(reader);
    response->body->subscribe(reader);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    std::vector<std::shared_ptr<BodyReader>> readers;
    FuzzWorld world;
    world.run(std::string_view(reinterpret_cast<const char*>(bytes), size), [&](const std::string& body) {
        auto request = std::make_unique<http::HttpRequest>(
            "post", "/bayeux", http::Headers(),
            std::make_shared<reactive_streams::OneShotPublisher<common::DataBuffer>>(common::DataBuffer(body)));
        std::shared_ptr<Context> context = world.requestContext();
        readResponse(context->handle(std::unique_ptr<Message>(std::move(request)), Address("long-poll")).get(),
                     world, readers);
    });
    return 0;
}
