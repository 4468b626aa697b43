#include "korvane/host/host.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace korvane::host {
namespace {

// Records its starts and stops in a shared journal.
struct EchoService : ServiceProviderAPI<EchoService> {
    EchoService(std::string name, std::vector<std::string>* journal) : name(std::move(name)), journal(journal) {}
    void onStart() override { journal->push_back("start " + name); }
    void onStop() override { journal->push_back("stop " + name); }
    std::string name;
    std::vector<std::string>* journal;
};

// Comes back as its own reply, its text turned into "<service>:<text>@<address>" and holding the context it came
// with; the text "throw" makes the service throw instead.
struct EchoRequest : ServiceMessage<EchoService> {
    explicit EchoRequest(std::string text) : text(std::move(text)) {}
    Future<std::unique_ptr<Message>> dispatchTo(std::shared_ptr<EchoService>&& service, std::unique_ptr<Message>&& self,
                                                Address&& address, std::shared_ptr<Context>&& context) override {
        if (text == "throw") {
            throw std::runtime_error("echo refused");
        }
        text = service->name + ":" + text + "@" + address.name();
        this->context = std::move(context);
        return makeReadyFuture<std::unique_ptr<Message>>(std::move(self));
    }
    std::string text;
    std::shared_ptr<Context> context;
};

struct ServiceRegistryTest : ::testing::Test {
    std::shared_ptr<EchoService> add(const std::string& name) {
        auto service = std::make_shared<EchoService>(name, &journal);
        registry->add(Address("/" + name), service);
        return service;
    }
    // The reply's text, or the failure's text.
    std::string send(const std::string& text, const std::string& address) {
        try {
            auto reply = context->handle<EchoRequest>(std::make_unique<EchoRequest>(text), Address(address)).get();
            return reply && reply->context == context ? reply->text : "no reply, or one with another context";
        } catch (const std::exception& error) {
            return error.what();
        }
    }

    std::vector<std::string> journal;
    std::shared_ptr<ServiceRegistry> registry = std::make_shared<ServiceRegistry>();
    std::shared_ptr<HostContext> context = HostContext::create(registry);
};

TEST_F(ServiceRegistryTest, RegistersStartsInOrderDeliversThroughTheContextAndStopsInReverse) {
    auto first = add("first");
    auto second = add("second");
    auto refused = [](const char* text) { return ::testing::ThrowsMessage<std::invalid_argument>(text); };
    EXPECT_THAT([&] { registry->add(Address(), first); }, refused("Cannot register a service at an unset address."));
    EXPECT_THAT([&] { registry->add(Address("/null"), nullptr); },
                refused("Cannot register a null service at address: /null"));
    EXPECT_THAT([&] { registry->add(Address("/first"), second); },
                refused("A service of this kind is already registered at address: /first"));
    EXPECT_EQ(registry->resolve(Address(), nullptr), nullptr);
    registry->startAll();
    add("stopped");

    EXPECT_EQ(send("hello", "/first"), "first:hello@/first");
    EXPECT_EQ(send("hi", "/nowhere"), "No service at address: /nowhere");
    EXPECT_EQ(send("throw", "/first"), "echo refused");

    registry->stopAll();
    EXPECT_FALSE(first->isRunning() || second->isRunning());
    EXPECT_EQ(journal, (std::vector<std::string>{"start first", "start second", "stop stopped", "stop second",
                                                 "stop first"}));
    registry.reset();
    EXPECT_EQ(send("hi", "/first"), "No service at address: /first");
}

}  // namespace
}  // namespace korvane::host
