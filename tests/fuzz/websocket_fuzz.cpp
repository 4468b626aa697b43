// Feeds a script of text frames to one WebSocket connection of the server transport,
// on one protocol service; several handshakes on the connection make several clients
// that can publish to one another. See bayeux_fuzz_world.h for the script's form.
// A frame that fails the socket is fine, and later frames still arrive at the
// transport, as a slow host might deliver them; crashes, leaks, sanitizer reports and
// non-UTF-8 frames written by the server are not.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/http.h"
#include "tests/fuzz/bayeux_fuzz_world.h"

namespace {

using namespace korvane;
using namespace korvane::bayeux;
using namespace korvane::bayeux::fuzzing;

using FrameReader = reactive_streams::CallbackSubscriber<http::WebSocketFrame>;
using FrameFeed = reactive_streams::CachedValuePublisher<http::WebSocketFrame, std::function<void()>>;

constexpr unsigned char textFrame = 129;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    auto feed = std::make_shared<FrameFeed>(nullptr);
    std::shared_ptr<FrameReader> reader;
    FuzzWorld world;
    http::Headers headers{{"upgrade", "websocket"}, {"connection", "Upgrade"}};
    auto upgrade = std::make_unique<http::HttpRequest>("get", "/bayeux", std::move(headers), nullptr);
    std::shared_ptr<Context> context = world.requestContext();
    std::unique_ptr<Message> reply =
        context->handle(std::unique_ptr<Message>(std::move(upgrade)), Address("websocket")).get();
    auto* socket = dynamic_cast<http::WebSocket*>(reply.get());
    if (socket == nullptr) {
        fail("the upgrade was not answered with a WebSocket");
    }
    reader = std::make_shared<FrameReader>([&world](http::WebSocketFrame&& frame) {
        if (frame.firstByte != textFrame) {
            fail("the server wrote a frame that is not a text frame");
        }
        world.heard(frame.data.view(), "a frame");
    });
    socket->inbound->subscribe(reader);
    feed->subscribe(socket->outbound);
    world.run(std::string_view(reinterpret_cast<const char*>(bytes), size), [&](const std::string& text) {
        feed->publish(http::WebSocketFrame(common::DataBuffer(text), textFrame));
    });
    return 0;
}
