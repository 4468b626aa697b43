#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "korvane/frame/data_buffer.h"
#include "korvane/frame/http.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/random.h"
#include "korvane/frame/reducing_subscriber.h"
#include "korvane/frame/service.h"
#include "support/log_capture.h"
#include "support/test_helpers.h"

#if defined(__SANITIZE_ADDRESS__)
// An impossible allocation must fail with a null pointer, as it does without the
// sanitizer, so that the buffer's "Out of memory!" path can be exercised.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace korvane {
namespace {

using korvane::test_support::ChannelCapture;
using korvane::test_support::errorOf;

// The text of the E that a failed reply carries; a call that throws instead fails the test.
template <class E, class T>
std::string failureOf(Future<T>&& reply) {
    return errorOf<E>([&reply] { reply.get(); });
}

// Lives in an anonymous namespace on purpose: its run-time type name then starts
// with '*', which the dispatch error must drop.
class StrayMessage : public Message {};

// Answers every request with a ready response and remembers what it was given; "delete" throws.
class RecordingHttpService : public http::HttpServiceProvider {
public:
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<http::HttpRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override {
        if (request->method == "delete") {
            throw std::logic_error("handler failed");
        }
        handled = std::move(request);
        handledAddress = address;
        handledContext = context;
        return http::makeReadyHttpResponse(202, "accepted");
    }

    std::unique_ptr<http::HttpRequest> handled;
    Address handledAddress;
    std::shared_ptr<Context> handledContext;
};

// Routes every message through a function the test sets.
class TestContext : public Context {
public:
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<Message>&& message, Address&& address) override {
        return route(std::move(message), std::move(address));
    }
    using Context::handle;

    std::function<Future<std::unique_ptr<Message>>(std::unique_ptr<Message>&&, Address&&)> route;
};

std::unique_ptr<http::HttpRequest> makeRequest(const std::string& method) {
    return std::make_unique<http::HttpRequest>(method, "/cometd", http::Headers{{"host", "example"}}, nullptr);
}

template <class T>
std::unique_ptr<T> downcast(std::unique_ptr<Message> message) {
    auto* typed = dynamic_cast<T*>(message.get());
    EXPECT_NE(typed, nullptr);
    message.release();
    return std::unique_ptr<T>(typed);
}

TEST(ServiceDispatch, DeliverChecksTheServiceStateAndTheMessageType) {
    auto service = std::make_shared<RecordingHttpService>();
    auto context = std::make_shared<TestContext>();
    auto deliver = [&](std::unique_ptr<Message> message) {
        return service->deliver(std::move(message), Address("http"), context);
    };
    EXPECT_EQ(failureOf<std::runtime_error>(deliver(makeRequest("post"))), "Service exists but is not running.");
    EXPECT_EQ(failureOf<std::runtime_error>(deliver(std::make_unique<StrayMessage>())),
              "Service exists but is not running.");
    EXPECT_EQ(service->handled.get(), nullptr);

    service->start();
    EXPECT_EQ(failureOf<std::invalid_argument>(deliver(std::make_unique<StrayMessage>())),
              "Incorrect message type. Expected: N7korvane14ServiceMessageINS_4http19HttpServiceProvider"
              "EEE but found N7korvane12_GLOBAL__N_112StrayMessageE");

    auto request = makeRequest("post");
    const http::HttpRequest* sent = request.get();
    auto response = downcast<http::HttpResponse>(service->deliver(std::move(request), Address("bayeux"), context).get());
    EXPECT_EQ(service->handled.get(), sent);
    EXPECT_EQ(service->handledAddress, Address("bayeux"));
    EXPECT_EQ(service->handledContext, context);
    EXPECT_EQ(response->status, 202);
    EXPECT_EQ(errorOf<std::logic_error>([&] { deliver(makeRequest("delete")); }), "handler failed");

    RecordingHttpService unshared;
    unshared.start();
    EXPECT_THROW(unshared.deliver(makeRequest("post"), Address("bayeux"), context), std::bad_weak_ptr);
}

TEST(ServiceDispatch, ContextHandleCastsTheReply) {
    auto context = std::make_shared<TestContext>();
    std::vector<std::string> routedMethods;
    context->route = [&routedMethods](std::unique_ptr<Message>&& message, Address&&) {
        auto request = downcast<http::HttpRequest>(std::move(message));
        routedMethods.push_back(request->method);
        if (request->method == "fail") {
            return makeErrorFuture<std::unique_ptr<Message>>(
                std::make_exception_ptr(std::runtime_error("connection refused")));
        }
        if (request->method == "upgrade") {
            return makeReadyFuture<std::unique_ptr<Message>>(std::make_unique<http::WebSocket>(nullptr, nullptr));
        }
        return http::makeReadyHttpResponse(500, "no upgrade");
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
    EXPECT_EQ(routedMethods, (std::vector<std::string>{"upgrade", "get", "fail", "post"}));
}

TEST(HttpValues, ReadyResponseCarriesStatusPlainTextAndBody) {
    auto response = downcast<http::HttpResponse>(http::makeReadyHttpResponse(400, "Unknown Bayeux Transport").get());
    EXPECT_EQ(response->status, 400);
    EXPECT_EQ(response->headers, (http::Headers{{"Content-Type", "text/plain;charset=UTF-8"}}));
    EXPECT_TRUE(response->trailers.empty());
    using common::DataBuffer;
    auto append = [](DataBuffer&& chunk, DataBuffer&& sum) {
        sum.append(chunk);
        return std::move(sum);
    };
    EXPECT_EQ((reactive_streams::reduce<DataBuffer, DataBuffer>(response->body, append, DataBuffer()).get().str()),
              "Unknown Bayeux Transport");
}

TEST(DiagnosticLogger, DisabledStatementEvaluatesNothingOfItsMessage) {
    common::diagnostic_logger logger("korvane::test::evaluation");
    ChannelCapture capture("korvane::test::evaluation");
    int evaluations = 0;
    auto counted = [&evaluations] { return ++evaluations; };
    KORVANE_LOG(logger, common::logTrace) << "tracing " << counted();
    KORVANE_LOG(logger, common::logFrequent) << "frequent " << counted();
    EXPECT_EQ(evaluations, 0);
    KORVANE_LOG(logger, common::logFailure) << "refused " << counted();
    EXPECT_EQ(evaluations, 1);
    EXPECT_EQ(capture.lines(), "512 refused 1\n");

    auto throwing = []() -> int { throw std::runtime_error("while formatting"); };
    EXPECT_THROW(KORVANE_LOG(logger, common::logWarning) << "interrupted " << throwing(), std::runtime_error);
    EXPECT_EQ(capture.lines(), "512 refused 1\n");
}

TEST(DiagnosticLogger, ChannelAndGlobalMasks) {
    common::diagnostic_logger first("korvane::test::first");
    common::diagnostic_logger second("korvane::test::second");
    EXPECT_EQ(first.levels(), common::defaultLogLevels);
    common::setLogLevels("korvane::test::first", common::logTrace | common::logLifecycle);
    common::diagnostic_logger firstAgain("korvane::test::first");
    EXPECT_TRUE(first.isEnabled(common::logTrace));
    EXPECT_FALSE(first.isEnabled(common::logFailure));
    EXPECT_EQ(firstAgain.levels(), 8u | 16u);
    EXPECT_EQ(second.levels(), common::defaultLogLevels);

    common::setLogLevels(4);
    common::diagnostic_logger third("korvane::test::third");
    for (const common::diagnostic_logger* logger : {&first, &firstAgain, &second, &third}) {
        EXPECT_EQ(logger->levels(), 4u) << logger->channel();
    }
    common::setLogLevels(common::defaultLogLevels);
    EXPECT_EQ(first.levels(), common::defaultLogLevels);
}

TEST(DataBuffer, GrowthFollowsDoublingOrNeed) {
    common::DataBuffer buffer;
    buffer.reserve(0);
    EXPECT_EQ(buffer.data, nullptr);
    // (bytes appended, capacity after)
    for (const auto& [append, capacity] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{
             {10, 10}, {1, 20}, {30, 41}, {1, 82}, {0, 82}}) {
        const std::uint64_t before = buffer.size;
        buffer.append(std::string(append, 'x'));
        EXPECT_EQ(buffer.size, before + append);
        EXPECT_EQ(buffer.capacity, capacity) << "after appending " << append;
    }
    EXPECT_EQ(buffer.view(), std::string(42, 'x'));
}

TEST(DataBuffer, MoveSelfAppendAndExhaustion) {
    common::DataBuffer source("abc");
    source.append(source);
    source.append(common::DataBuffer());
    EXPECT_EQ(source.str(), "abc");

    common::DataBuffer target(std::move(source));
    EXPECT_EQ(target.str(), "abc");
    EXPECT_EQ(source.data, nullptr);
    EXPECT_EQ(source.capacity, 0u);
    EXPECT_EQ(source.size, 0u);
    common::DataBuffer assigned("old contents");
    assigned = std::move(target);
    EXPECT_EQ(assigned.str(), "abc");
    EXPECT_EQ(target.data, nullptr);

    const auto huge = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(errorOf([&] { assigned.reserve(huge); }), "Out of memory!");
    EXPECT_EQ(assigned.str(), "abc");
    common::DataBuffer empty;
    EXPECT_EQ(errorOf([&] { empty.reserve(huge); }), "Out of memory!");
    EXPECT_EQ(empty.data, nullptr);
}

TEST(RandomString, LengthAlphabetAndDistinctValues) {
    auto alphanumeric = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
    for (unsigned char length : {0, 1, 16, 255}) {
        std::string text = common::randomString(length);
        EXPECT_EQ(text.size(), length);
        EXPECT_TRUE(std::all_of(text.begin(), text.end(), alphanumeric)) << text;
    }
    std::set<std::string> drawn;
    std::set<char> used;
    for (int i = 0; i < 1000; ++i) {
        std::string id = common::randomString(16);
        drawn.insert(id);
        used.insert(id.begin(), id.end());
    }
    EXPECT_EQ(drawn.size(), 1000u);
    EXPECT_EQ(used.size(), 62u);
}

}  // namespace
}  // namespace korvane
