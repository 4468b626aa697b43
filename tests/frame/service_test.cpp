#include <gtest/gtest.h>

#include <limits>

#include "korvane/frame/data_buffer.h"
#include "korvane/frame/http.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/reducing_subscriber.h"
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

TEST(ServiceDispatch, ContextHandleCastsTheReply) {
    auto context = std::make_shared<test_support::TestContext>();
    context->route = [](std::unique_ptr<Message>&& message, Address&&) {
        const std::string method = dynamic_cast<http::HttpRequest&>(*message).method;
        if (method == "fail") {
            return makeErrorFuture<std::unique_ptr<Message>>(
                std::make_exception_ptr(std::runtime_error("connection refused")));
        }
        return method == "upgrade"
                   ? makeReadyFuture<std::unique_ptr<Message>>(std::make_unique<http::WebSocket>(nullptr, nullptr))
                   : http::makeReadyHttpResponse(500, "no upgrade");
    };
    auto upgrade = [&context](const std::string& method) {
        auto request = std::make_unique<http::HttpClientRequest>("/socket", method, nullptr);
        return context->handle<http::WebSocket, http::HttpClientRequest>(std::move(request), Address("c"));
    };
    EXPECT_NE(upgrade("upgrade").get(), nullptr);
    EXPECT_EQ(failureOf<std::runtime_error>(upgrade("get")),
              "Unable to cast response message type: korvane::http::HttpResponse to korvane::http::WebSocket");
    EXPECT_EQ(failureOf<std::runtime_error>(upgrade("fail")), "connection refused");
    auto identity = context->handle<Message, http::HttpRequest>(makeRequest("post"), Address("c"));
    EXPECT_NE(dynamic_cast<http::HttpResponse*>(identity.get().get()), nullptr);

    auto response = http::makeReadyHttpResponse(400, "Unknown Bayeux Transport").get();
    auto& ready = dynamic_cast<http::HttpResponse&>(*response);
    EXPECT_EQ(ready.status, 400);
    EXPECT_EQ(ready.headers, (http::Headers{{"Content-Type", "text/plain;charset=UTF-8"}}));
    EXPECT_TRUE(ready.trailers.empty());
    using common::DataBuffer;
    auto append = [](DataBuffer&& chunk, DataBuffer&& sum) { return sum.append(chunk), std::move(sum); };
    EXPECT_EQ((reactive_streams::reduce<DataBuffer, DataBuffer>(ready.body, append, DataBuffer()).get().str()),
              "Unknown Bayeux Transport");
}

TEST(DiagnosticLogger, DisabledStatementEvaluatesNothingAndMasksApplyPerChannelOrToAll) {
    common::diagnostic_logger logger("korvane::test::evaluation");
    test_support::ChannelCapture capture("korvane::test::evaluation");
    int evaluations = 0;
    KORVANE_LOG(logger, common::logTrace) << "tracing " << ++evaluations;
    KORVANE_LOG(logger, common::logFrequent) << "frequent " << ++evaluations;
    KORVANE_LOG(logger, common::logFailure) << "refused " << ++evaluations;
    auto throwing = []() -> int { throw std::runtime_error("while formatting"); };
    EXPECT_THROW(KORVANE_LOG(logger, common::logWarning) << "interrupted " << throwing(), std::runtime_error);
    EXPECT_EQ(capture.lines(), "512 refused 1\n");

    common::diagnostic_logger first("korvane::test::first"), second("korvane::test::second");
    EXPECT_EQ(first.levels(), common::defaultLogLevels);
    common::setLogLevels("korvane::test::first", common::logTrace | common::logLifecycle);
    common::diagnostic_logger firstAgain("korvane::test::first");
    EXPECT_TRUE(first.isEnabled(common::logTrace) && !first.isEnabled(common::logFailure));
    EXPECT_EQ(firstAgain.levels(), 8u | 16u);
    EXPECT_EQ(second.levels(), common::defaultLogLevels);
    common::setLogLevels(4);
    common::diagnostic_logger third("korvane::test::third");
    for (const common::diagnostic_logger* each : {&first, &firstAgain, &second, &third}) {
        EXPECT_EQ(each->levels(), 4u) << each->channel();
    }
    common::setLogLevels(common::defaultLogLevels);
    EXPECT_EQ(first.levels(), common::defaultLogLevels);
}

TEST(DataBuffer, MoveSelfAppendAndExhaustion) {
    common::DataBuffer source("abc");
    source.append(source);
    source.append(common::DataBuffer());
    common::DataBuffer target(std::move(source)), assigned("old contents");
    EXPECT_EQ(source.data, nullptr);
    assigned = std::move(target);
    EXPECT_EQ(assigned.str(), "abc");
    EXPECT_EQ(target.data, nullptr);
    const auto huge = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(errorOf([&] { assigned.reserve(huge); }), "Out of memory!");
    EXPECT_EQ(assigned.str(), "abc");
}

}  // namespace
}  // namespace korvane
