#include <gtest/gtest.h>

#include <limits>
#include <tuple>
#include <vector>

#include "korvane/frame/data_buffer.h"
#include "korvane/frame/http.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/service.h"
#include "support/log_capture.h"
#include "support/test_context.h"
#include "support/test_helpers.h"

#if defined(__SANITIZE_ADDRESS__)
// An impossible allocation must fail with a null pointer, as it does without the
// sanitizer, so that the buffer's "Out of memory!" path can be exercised.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace korvane {
namespace {

using test_support::errorOf;

// The text of the E that a failed reply carries; a call that throws instead fails the test.
template <class E, class T>
std::string failureOf(Future<T>&& reply) {
    return errorOf<E>([&reply] { reply.get(); });
}

// Lives in an anonymous namespace on purpose: its run-time type name then starts
// with '*', which the dispatch error must drop.
class StrayMessage : public Message {};

// Answers every request with a ready response and remembers what it was given; "delete" throws.
struct RecordingHttpService : http::HttpServiceProvider {
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<http::HttpRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override {
        if (request->method == "delete") {
            throw std::logic_error("handler failed");
        }
        handled = std::move(request), handledAddress = address, handledContext = context;
        return http::makeReadyHttpResponse(202, "accepted");
    }
    std::unique_ptr<http::HttpRequest> handled;
    Address handledAddress;
    std::shared_ptr<Context> handledContext;
};

std::unique_ptr<http::HttpRequest> makeRequest(const std::string& method) {
    return std::make_unique<http::HttpRequest>(method, "/cometd", http::Headers{{"host", "example"}}, nullptr);
}

TEST(ServiceDispatch, DeliverChecksTheServiceStateAndTheMessageType) {
    auto service = std::make_shared<RecordingHttpService>();
    auto context = std::make_shared<test_support::TestContext>();
    auto deliver = [&](std::unique_ptr<Message> message) {
        return service->deliver(std::move(message), Address("http"), context);
    };
    EXPECT_EQ(failureOf<std::runtime_error>(deliver(makeRequest("post"))), "Service exists but is not running.");
    EXPECT_EQ(service->handled, nullptr);
    service->start();
    EXPECT_EQ(failureOf<std::invalid_argument>(deliver(std::make_unique<StrayMessage>())),
              "Incorrect message type. Expected: N7korvane14ServiceMessageINS_4http19HttpServiceProvider"
              "EEE but found N7korvane12_GLOBAL__N_112StrayMessageE");

    auto request = makeRequest("post");
    const http::HttpRequest* sent = request.get();
    auto reply = service->deliver(std::move(request), Address("bayeux"), context).get();
    EXPECT_TRUE(service->handled.get() == sent && service->handledAddress == Address("bayeux") &&
                service->handledContext == context);
    EXPECT_EQ(dynamic_cast<http::HttpResponse&>(*reply).status, 202);
    EXPECT_EQ(errorOf<std::logic_error>([&] { deliver(makeRequest("delete")); }), "handler failed");
}

// The uncast handle<Message, ...> carries every HTTP request of the end-to-end runs, and a
// successful cast every upgrade of the WebSocket client transport test.
TEST(ServiceDispatch, ContextHandleCastsTheReply) {
    auto context = std::make_shared<test_support::TestContext>();
    context->route = [](std::unique_ptr<Message>&& message, Address&&) {
        const auto refused = std::make_exception_ptr(std::runtime_error("connection refused"));
        const bool fails = dynamic_cast<http::HttpRequest&>(*message).method == "fail";
        return fails ? makeErrorFuture<std::unique_ptr<Message>>(refused) : http::makeReadyHttpResponse(500, "no upgrade");
    };
    auto upgrade = [&context](const std::string& method) {
        auto request = std::make_unique<http::HttpClientRequest>("/socket", method, nullptr);
        return context->handle<http::WebSocket, http::HttpClientRequest>(std::move(request), Address("c"));
    };
    EXPECT_EQ(failureOf<std::runtime_error>(upgrade("get")),
              "Unable to cast response message type: korvane::http::HttpResponse to korvane::http::WebSocket");
    EXPECT_EQ(failureOf<std::runtime_error>(upgrade("fail")), "connection refused");
}

// A string property is read out or compared in place; an absent one reads as empty, one of another type throws.
TEST(ContextState, StringPropertiesReadAndCompareInPlace) {
    common::ContextState state;
    state.set("sessionId", boost::any(std::string("browser-1")));
    state.set("count", boost::any(5));
    EXPECT_EQ(state.getString("sessionId"), "browser-1");
    EXPECT_EQ(state.getString("absent"), "");
    const std::tuple<const char*, const char*, bool> comparisons[] = {
        {"sessionId", "browser-1", true}, {"sessionId", "browser-2", false}, {"sessionId", "", false},
        {"absent", "", true},             {"absent", "browser-1", false},
    };
    for (const auto& [key, value, expected] : comparisons) {
        EXPECT_EQ(state.isString(key, value), expected) << key << " " << value;
    }
    EXPECT_THROW(state.isString("count", "5"), boost::bad_any_cast);
    EXPECT_THROW(state.getString("count"), boost::bad_any_cast);
}

// A disabled statement evaluates nothing; a channel's mask applies to its loggers old and new,
// the mask for all to every logger.
TEST(DiagnosticLogger, DisabledStatementEvaluatesNothingAndMasksApplyPerChannelOrToAll) {
    common::diagnostic_logger logger("korvane::test::first"), other("korvane::test::second");
    test_support::ChannelCapture capture("korvane::test::first");
    int evaluations = 0;
    KORVANE_LOG(logger, common::logTrace) << "tracing " << ++evaluations;
    KORVANE_LOG(logger, common::logFrequent) << "frequent " << ++evaluations;
    KORVANE_LOG(logger, common::logFailure) << "refused " << ++evaluations;
    auto throwing = []() -> int { throw std::runtime_error("while formatting"); };
    EXPECT_THROW(KORVANE_LOG(logger, common::logWarning) << "interrupted " << throwing(), std::runtime_error);
    EXPECT_EQ(capture.lines(), "512 refused 1\n");
    common::setLogLevels("korvane::test::first", common::logTrace | common::logLifecycle);
    EXPECT_TRUE(logger.isEnabled(common::logTrace) && !logger.isEnabled(common::logFailure));
    EXPECT_EQ(common::diagnostic_logger("korvane::test::first").levels(), 8u | 16u);
    EXPECT_EQ(other.levels(), common::defaultLogLevels);
    common::setLogLevels(4);
    const common::diagnostic_logger madeLater("korvane::test::third");
    EXPECT_EQ((std::vector<unsigned>{logger.levels(), other.levels(), madeLater.levels()}),
              (std::vector<unsigned>{4, 4, 4}));
    common::setLogLevels(common::defaultLogLevels);
}

// Appending a buffer to itself leaves it as it was; a failed allocation keeps the contents.
TEST(DataBuffer, SelfAppendAndExhaustionKeepTheContents) {
    common::DataBuffer buffer("abc");
    buffer.append(buffer);
    EXPECT_EQ(errorOf([&] { buffer.reserve(std::numeric_limits<std::uint64_t>::max()); }), "Out of memory!");
    EXPECT_EQ(buffer.str(), "abc");
}

}  // namespace
}  // namespace korvane
