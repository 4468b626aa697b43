// embedded_chat: a Bayeux server inside your own process.
//
// It serves Bayeux on a port of its choosing (the first argument, default
// 127.0.0.1:8090) and takes part itself through an in-process session: an "echo
// bot" that answers every message published below /chat/ on /chat/bot, with no
// JSON parsing and no HTTP of its own. Browsers and other Bayeux clients talk to it
// as to any server. With --check it publishes one message in-process, waits for the
// bot's answer and exits: the smoke test run by `make test`.

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <iostream>
#include <mutex>
#include <string>

#include "korvane/bayeux.h"
#include "korvane/host/bayeux_host.h"

using namespace korvane;

namespace {

using Delivery = std::shared_ptr<const bayeux::PublishRequest>;

// The bot answers every chat message on /chat/bot; its own answers are not for it.
std::shared_ptr<reactive_streams::CallbackSubscriber<Delivery>> makeEchoBot(
    const std::shared_ptr<bayeux::LocalBayeuxSession>& bot) {
    std::weak_ptr<bayeux::LocalBayeuxSession> weakBot = bot;
    return std::make_shared<reactive_streams::CallbackSubscriber<Delivery>>([weakBot](Delivery&& message) {
        auto session = weakBot.lock();
        if (!session || message->channel == "/chat/bot") {
            return;
        }
        auto answer = std::make_unique<bayeux::PublishRequest>("/chat/bot");
        std::string text = R"({"user":"echo bot","heard":)" + std::string(message->data->view()) + "}";
        answer->data = std::make_shared<common::DataBuffer>(text);
        session->publish(std::move(answer));
    });
}

// Publishes one message as a second in-process participant and waits for the bot's answer.
bool checkTheBotAnswers(host::BayeuxHost& server) {
    auto visitor = server.makeLocalSession();
    std::mutex mutex;
    std::condition_variable answered;
    std::string heard;
    auto replies = visitor->subscribe("/chat/bot");
    auto listener = std::make_shared<reactive_streams::CallbackSubscriber<Delivery>>([&](Delivery&& message) {
        std::lock_guard<std::mutex> guard(mutex);
        heard = message->data->str();
        answered.notify_all();
    });
    replies->subscribe(listener);
    auto question = std::make_unique<bayeux::PublishRequest>("/chat/lobby");
    question->data = std::make_shared<common::DataBuffer>(R"({"user":"visitor","text":"hello"})");
    visitor->publish(std::move(question));
    std::unique_lock<std::mutex> lock(mutex);
    answered.wait_for(lock, std::chrono::seconds(5), [&] { return !heard.empty(); });
    std::cout << "the bot answered: " << heard << std::endl;
    listener->cancel();
    return heard == R"({"user":"echo bot","heard":{"user":"visitor","text":"hello"}})";
}

}  // namespace

int main(int argc, char** argv) {
    const std::string first = argc > 1 ? argv[1] : "";
    const bool check = first == "--check";

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    host::BayeuxHostOptions options;
    options.http.listen = check ? "127.0.0.1:0" : first.empty() ? "127.0.0.1:8090" : first;
    host::BayeuxHost server(std::move(options));
    server.start();

    auto bot = server.makeLocalSession();
    auto chat = bot->subscribe("/chat/**");
    auto echo = makeEchoBot(bot);
    chat->subscribe(echo);
    std::cout << "embedded_chat: Bayeux at " << server.url() << "bayeux, the echo bot listens on /chat/**"
              << std::endl;

    if (check) {
        const bool ok = checkTheBotAnswers(server);
        echo->cancel();
        return ok ? 0 : 1;
    }
    int received = 0;
    sigwait(&signals, &received);
    echo->cancel();
    return 0;
}
