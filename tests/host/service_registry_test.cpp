#include "korvane/host/host.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace korvane::host {
namespace {

class EchoService;

class EchoRequest : public ServiceMessage<EchoService> {
public:
    explicit EchoRequest(std::string text) : text(std::move(text)) {}
    Future<std::unique_ptr<Message>> dispatchTo(std::shared_ptr<EchoService>&& service, std::unique_ptr<Message>&& self,
                                                Address&& address, std::shared_ptr<Context>&& context) override;
    std::string text;
};

class EchoReply : public Message {
public:
    EchoReply(std::string text, std::shared_ptr<Context> context) : text(std::move(text)), context(std::move(context)) {}
    std::string text;
    std::shared_ptr<Context> context;
};

class StrangerMessage : public Message {};

// Records its starts and stops in a shared journal, and echoes requests back.
class EchoService : public ServiceProviderAPI<EchoService> {
public:
    EchoService(std::string name, std::vector<std::string>* journal) : name(std::move(name)), journal(journal) {}

    void onStart() override { journal->push_back("start " + name); }
    void onStop() override { journal->push_back("stop " + name); }

    Future<std::unique_ptr<Message>> handle(std::unique_ptr<EchoRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) {
        if (request->text == "throw") {
            throw std::runtime_error("echo refused");
        }
        return makeReadyFuture<std::unique_ptr<Message>>(
            std::make_unique<EchoReply>(name + ":" + request->text + "@" + address.name(), std::move(context)));
    }

    std::string name;
    std::vector<std::string>* journal;
};

Future<std::unique_ptr<Message>> EchoRequest::dispatchTo(std::shared_ptr<EchoService>&& service,
                                                         std::unique_ptr<Message>&& self, Address&& address,
                                                         std::shared_ptr<Context>&& context) {
    std::unique_ptr<EchoRequest> request(static_cast<EchoRequest*>(self.release()));
    return service->handle(std::move(request), std::move(address), std::move(context));
}

std::string failureText(Future<std::unique_ptr<Message>>&& future) {
    try {
        future.get();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no failure";
}

class ServiceRegistryTest : public ::testing::Test {
protected:
    std::shared_ptr<EchoService> makeService(const std::string& name) {
        return std::make_shared<EchoService>(name, &journal);
    }

    std::vector<std::string> journal;
    std::shared_ptr<ServiceRegistry> registry = std::make_shared<ServiceRegistry>();
};

TEST_F(ServiceRegistryTest, ResolvesWhatWasAddedAndRefusesBadRegistrations) {
    auto first = makeService("first");
    registry->add(Address("/first"), first);
    EXPECT_EQ(registry->resolve(Address("/first")), first);
    EXPECT_EQ(registry->resolve(Address("/second")), nullptr);
    EXPECT_EQ(registry->resolve(Address()), nullptr);

    struct Refusal {
        Address address;
        std::shared_ptr<ServiceProvider> provider;
        std::string text;
    };
    const std::vector<Refusal> refusals = {
        {Address(), makeService("x"), "Cannot register a service at an unset address."},
        {Address("/null"), nullptr, "Cannot register a null service at address: /null"},
        {Address("/first"), makeService("again"), "A service is already registered at address: /first"},
    };
    for (const auto& refusal : refusals) {
        try {
            registry->add(refusal.address, refusal.provider);
            ADD_FAILURE() << "accepted " << refusal.address.name();
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(std::string(error.what()), refusal.text);
        }
    }
    EXPECT_EQ(registry->resolve(Address("/first")), first);
}

TEST_F(ServiceRegistryTest, StartsInOrderAndStopsInReverse) {
    auto first = makeService("first");
    auto second = makeService("second");
    registry->add(Address("/first"), first);
    registry->add(Address("/second"), second);
    EXPECT_FALSE(first->isRunning());
    registry->startAll();
    EXPECT_TRUE(first->isRunning());
    EXPECT_TRUE(second->isRunning());
    registry->stopAll();
    EXPECT_FALSE(first->isRunning());
    EXPECT_FALSE(second->isRunning());
    EXPECT_EQ(journal, (std::vector<std::string>{"start first", "start second", "stop second", "stop first"}));
}

TEST_F(ServiceRegistryTest, ContextDeliversToTheServiceAtTheAddressAndPassesItself) {
    registry->add(Address("/echo"), makeService("echo"));
    registry->startAll();
    auto context = HostContext::create(registry);
    context->set("sessionId", std::string("browser-1"));

    auto reply = context->handle<EchoReply, EchoRequest>(std::make_unique<EchoRequest>("hello"), Address("/echo")).get();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->text, "echo:hello@/echo");
    ASSERT_EQ(reply->context, context);
    EXPECT_EQ(boost::any_cast<std::string>(reply->context->get("sessionId")), "browser-1");
}

TEST_F(ServiceRegistryTest, ContextTurnsEveryRefusalIntoAFailedFuture) {
    auto stopped = makeService("stopped");
    registry->add(Address("/echo"), makeService("echo"));
    registry->startAll();
    registry->add(Address("/stopped"), stopped);
    auto context = HostContext::create(registry);

    auto send = [&context](std::unique_ptr<Message> message, const std::string& address) {
        return failureText(context->handle(std::move(message), Address(address)));
    };
    EXPECT_EQ(send(std::make_unique<EchoRequest>("hi"), "/nowhere"), "No service at address: /nowhere");
    EXPECT_EQ(send(std::make_unique<EchoRequest>("hi"), "/stopped"), "Service exists but is not running.");
    EXPECT_EQ(send(std::make_unique<StrangerMessage>(), "/stopped"), "Service exists but is not running.");
    EXPECT_EQ(send(std::make_unique<EchoRequest>("throw"), "/echo"), "echo refused");
    EXPECT_EQ(send(std::make_unique<StrangerMessage>(), "/echo").rfind("Incorrect message type. Expected: ", 0), 0u);

    registry.reset();
    EXPECT_EQ(send(std::make_unique<EchoRequest>("hi"), "/echo"), "No service at address: /echo");
}

TEST(ServiceRegistryConcurrency, ResolvesAndDeliversWhileServicesAreAdded) {
    std::vector<std::string> journal;
    auto registry = std::make_shared<ServiceRegistry>();
    auto echo = std::make_shared<EchoService>("echo", &journal);
    registry->add(Address("/echo"), echo);
    echo->start();
    std::atomic<bool> adding{true};
    std::atomic<int> replies{0};
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 3; ++sender) {
        senders.emplace_back([&] {
            auto context = HostContext::create(registry);
            do {
                auto reply = context->handle(std::make_unique<EchoRequest>("x"), Address("/echo")).get();
                if (reply) {
                    ++replies;
                }
                registry->resolve(Address("/late-0"));
            } while (adding);
        });
    }
    for (int index = 0; index < 200; ++index) {
        registry->add(Address("/late-" + std::to_string(index)), std::make_shared<EchoService>("late", &journal));
    }
    adding = false;
    for (auto& sender : senders) {
        sender.join();
    }
    EXPECT_GE(replies.load(), 3);
    EXPECT_NE(registry->resolve(Address("/late-199")), nullptr);
}

}  // namespace
}  // namespace korvane::host
