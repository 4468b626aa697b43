#include "load/load_client.h"

#include <algorithm>
#include <boost/asio/post.hpp>

namespace korvane::load {
namespace {

constexpr std::int64_t kRetryAfterFailureMillis = 1000;

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

std::string roomChannel(std::size_t room) { return "/rooms/" + std::to_string(room); }

// Scanned replies: the messages of a body, a delivery's data, a connect's advice. One
// set per I/O thread, shared by its clients (a reply is scanned and acted on before
// the next is read): storage of a client's own would be cold each time one of a
// thousand clients hears again, and its misses cost the tool a tenth of its CPU.
struct ScannedReply {
    MessageFields messages;
    MessageFields data;
    MessageFields advice;
};
thread_local ScannedReply scanned;

}  // namespace

LoadClient::LoadClient(boost::asio::io_context& io, ThreadStats& stats, RunPlan& plan, ClientSetup setup)
    : io(io),
      stats(stats),
      plan(plan),
      setup(std::move(setup)),
      connectTimer(io),
      publishTimer(io),
      random(this->setup.seed),
      subscribed(this->setup.rooms.size(), false) {}

LoadClient::~LoadClient() {
    if (link) {
        link->close();
    }
}

void LoadClient::startAfter(std::chrono::microseconds delay) {
    connectTimer.expires_after(delay);
    connectTimer.async_wait([this](boost::system::error_code ec) {
        if (!ec) {
            handshake();
        }
    });
}

void LoadClient::startPublishing() {
    if (setup.role == Role::churner) {
        handshake();
        return;
    }
    const std::int64_t stagger = plan.publishIntervalMicros * setup.publisherId /
                                 std::max<std::int64_t>(1, static_cast<std::int64_t>(plan.publisherCount));
    nextSend = plan.publishStart.load(std::memory_order_relaxed) + stagger;
    publishDue();
}

void LoadClient::openLink() {
    LinkEvents events{[this](std::string_view body) { onBody(body); },
                      [this](const std::string& what) { onFailure(what); }};
    link = setup.transport == Transport::webSocket ? makeWebSocketLink(io, setup.target, std::move(events))
                                                     : makeLongPollingLink(io, setup.target, std::move(events));
}

void LoadClient::send(std::string message, bool isConnect) {
    if (!link) {
        openLink();
    }
    link->send(std::move(message), isConnect);
}

void LoadClient::handshake() {
    ++session;
    clientId.clear();
    connectOutstanding = false;
    firstConnect = true;
    connectInterval = 0;
    const char* type = setup.transport == Transport::webSocket ? "websocket" : "long-polling";
    send("{\"id\":\"" + nextId() +
         "\",\"channel\":\"/meta/handshake\",\"version\":\"1.0\",\"minimumVersion\":\"1.0\","
         "\"supportedConnectionTypes\":[\"" +
         type + "\"]}");
}

std::string LoadClient::nextId() { return std::to_string(++messageId); }

void LoadClient::onBody(std::string_view body) {
    const bool whole = forEachObject(body, scanned.messages, [this](const MessageFields& message) {
        const auto channel = message.string("channel");
        if (!channel) {
            ++stats.counters().errors;
        } else if (startsWith(*channel, "/meta/")) {
            onMeta(*channel, message);
        } else if (message.has("successful")) {
            onPublishReply(message);
        } else {
            onDelivery(message);
        }
    });
    if (!whole) {
        ++stats.counters().errors;
    }
}

void LoadClient::onMeta(std::string_view channel, const MessageFields& message) {
    if (channel == "/meta/handshake") {
        onHandshakeReply(message);
    } else if (channel == "/meta/subscribe") {
        onSubscribeReply(message);
    } else if (channel == "/meta/connect") {
        onConnectReply(message);
    } else if (channel == "/meta/unsubscribe") {
        onUnsubscribeReply(message);
    } else if (channel == "/meta/disconnect") {
        onDisconnectReply();
    }
}

void LoadClient::onHandshakeReply(const MessageFields& message) {
    const auto id = message.string("clientId");
    if (!message.isTrue("successful") || !id) {
        ++stats.counters().errors;
        rehandshakeAfter(kRetryAfterFailureMillis);
        return;
    }
    ++stats.counters().handshakes;
    clientId = std::string(*id);
    connectTail = "\",\"channel\":\"/meta/connect\",\"clientId\":\"" + clientId + "\",\"connectionType\":\"" +
                  (setup.transport == Transport::webSocket ? "websocket" : "long-polling") + "\"";
    if (setup.role != Role::churner) {
        sendConnect();
    }
    if (setup.role == Role::publisher) {
        up = true;
        stats.clientUp();
        return;
    }
    subscribeAll();
}

void LoadClient::subscribeAll() {
    for (std::size_t room : setup.rooms) {
        send("{\"id\":\"" + nextId() + "\",\"channel\":\"/meta/subscribe\",\"clientId\":\"" + clientId +
             "\",\"subscription\":\"" + roomChannel(room) + "\"}");
    }
}

void LoadClient::onSubscribeReply(const MessageFields& message) {
    const auto subscription = message.string("subscription");
    if (!message.isTrue("successful") || !subscription) {
        ++stats.counters().errors;
        return;
    }
    for (std::size_t i = 0; i < setup.rooms.size(); ++i) {
        if (subscribed[i] || *subscription != roomChannel(setup.rooms[i])) {
            continue;
        }
        subscribed[i] = true;
        ++subscribedCount;
        if (setup.role == Role::subscriber) {
            plan.subscribers[setup.rooms[i]].fetch_add(1, std::memory_order_relaxed);
        }
    }
    if (subscribedCount != setup.rooms.size() || up) {
        return;
    }
    up = true;
    stats.clientUp();
    if (setup.role == Role::churner) {
        publish(randomRoom(), nowMicros());
    }
}

void LoadClient::sendConnect() {
    connectOutstanding = true;
    constexpr std::string_view head = "{\"id\":\"";
    // The first connect of a session asks for an answer at once, as browsers do.
    const std::string_view end = firstConnect ? ",\"advice\":{\"timeout\":0}}" : "}";
    const std::string id = nextId();
    std::string message;
    message.reserve(head.size() + id.size() + connectTail.size() + end.size());
    message.append(head).append(id).append(connectTail).append(end);
    firstConnect = false;
    send(std::move(message), true);
}

void LoadClient::scheduleConnect(std::int64_t afterMillis) {
    if (afterMillis <= 0) {
        sendConnect();
        return;
    }
    connectTimer.expires_after(std::chrono::milliseconds(afterMillis));
    connectTimer.async_wait([this, started = session](boost::system::error_code ec) {
        if (!ec && started == session) {
            sendConnect();
        }
    });
}

void LoadClient::onConnectReply(const MessageFields& message) {
    if (!connectOutstanding) {
        return;  // the answer to a connect of a session given up
    }
    connectOutstanding = false;
    if (plan.isMeasured(nowMicros())) {
        ++stats.counters().connects;
    }
    // The interval and the reconnect rule are fields of the advice object; a reply
    // without a readable advice keeps the interval and has no rule.
    const auto advice = message.value("advice");
    const bool hasAdvice = advice && advice->front() == '{' && scanned.advice.scan(*advice, 0) != std::string_view::npos;
    if (const auto interval = hasAdvice ? scanned.advice.number("interval") : std::nullopt) {
        connectInterval = *interval;
    }
    const auto reconnect = hasAdvice ? scanned.advice.string("reconnect") : std::nullopt;
    if (reconnect && *reconnect == "none") {
        ++stats.counters().errors;
        loseSession();
        return;
    }
    const bool successful = message.isTrue("successful");
    if ((reconnect && *reconnect == "handshake") || (!successful && !(reconnect && *reconnect == "retry"))) {
        ++stats.counters().rehandshakes;
        loseSession();
        handshake();
        return;
    }
    if (!successful) {
        ++stats.counters().errors;
    }
    scheduleConnect(connectInterval);
}

void LoadClient::onPublishReply(const MessageFields& message) {
    if (!message.isTrue("successful")) {
        ++stats.counters().errors;
        return;
    }
    if (setup.role != Role::churner) {
        return;
    }
    for (std::size_t room : setup.rooms) {
        send("{\"id\":\"" + nextId() + "\",\"channel\":\"/meta/unsubscribe\",\"clientId\":\"" + clientId +
             "\",\"subscription\":\"" + roomChannel(room) + "\"}");
    }
}

// A churner leaves once the last of its rooms is let go of.
void LoadClient::onUnsubscribeReply(const MessageFields& message) {
    if (setup.role != Role::churner || subscribedCount == 0) {
        return;
    }
    if (!message.isTrue("successful")) {
        ++stats.counters().errors;
    }
    if (--subscribedCount == 0) {
        send("{\"id\":\"" + nextId() + "\",\"channel\":\"/meta/disconnect\",\"clientId\":\"" + clientId + "\"}");
    }
}

void LoadClient::onDisconnectReply() {
    if (setup.role != Role::churner) {
        return;
    }
    loseSession();
    // The link is inside its callback: it is let go of once that returned.
    boost::asio::post(io, [this, held = std::shared_ptr<Link>(std::move(link))] {
        if (plan.isPublishing(nowMicros())) {
            handshake();
        }
    });
}

void LoadClient::onDelivery(const MessageFields& message) {
    if (setup.role != Role::subscriber) {
        return;
    }
    const auto stamp = deliveryStamp(message, scanned.data);
    if (!stamp || stamp->publisher < 0 || static_cast<std::size_t>(stamp->publisher) >= plan.publisherCount) {
        ++stats.counters().errors;
        return;
    }
    if (lastSequence.empty()) {
        lastSequence.assign(plan.publisherCount, -1);
    }
    std::int64_t& last = lastSequence[static_cast<std::size_t>(stamp->publisher)];
    if (stamp->sequence == last) {
        ++stats.counters().duplicates;
        return;
    }
    if (stamp->sequence < last) {
        ++stats.counters().reordered;
    } else {
        last = stamp->sequence;
    }
    if (plan.isMeasured(stamp->sentMicros)) {
        ++stats.counters().delivered;
        stats.recordLatency(static_cast<std::uint64_t>(std::max<std::int64_t>(0, nowMicros() - stamp->sentMicros)));
    }
}

void LoadClient::onFailure(const std::string&) {
    ++stats.counters().errors;
    loseSession();
    rehandshakeAfter(kRetryAfterFailureMillis);
}

// The session is gone: its subscriptions stop counting and its timers stop.
void LoadClient::loseSession() {
    ++session;
    clientId.clear();
    connectOutstanding = false;
    for (std::size_t i = 0; i < setup.rooms.size(); ++i) {
        if (subscribed[i] && setup.role == Role::subscriber) {
            plan.subscribers[setup.rooms[i]].fetch_sub(1, std::memory_order_relaxed);
        }
        subscribed[i] = false;
    }
    subscribedCount = 0;
    if (up) {
        up = false;
        stats.clientDown();
    }
}

void LoadClient::rehandshakeAfter(std::int64_t millis) {
    connectTimer.expires_after(std::chrono::milliseconds(millis));
    connectTimer.async_wait([this, started = session](boost::system::error_code ec) {
        if (!ec && started == session && (setup.role != Role::churner || plan.isPublishing(nowMicros()))) {
            ++stats.counters().rehandshakes;
            handshake();
        }
    });
}

// Sends every publish whose time has come, late ones included, then sleeps until the next.
void LoadClient::publishDue() {
    const std::int64_t now = nowMicros();
    while (nextSend <= now && plan.isPublishing(nextSend)) {
        publish(randomRoom(), nextSend);
        nextSend += plan.publishIntervalMicros;
    }
    if (!plan.isPublishing(nextSend)) {
        return;
    }
    publishTimer.expires_after(std::chrono::microseconds(nextSend - now));
    publishTimer.async_wait([this](boost::system::error_code ec) {
        if (!ec) {
            publishDue();
        }
    });
}

void LoadClient::publish(std::size_t room, std::int64_t stampMicros) {
    const bool measured = plan.isMeasured(stampMicros);
    if (measured) {
        ++stats.counters().sent;
        stats.counters().expected += static_cast<std::uint64_t>(
            std::max<std::int64_t>(0, plan.subscribers[room].load(std::memory_order_relaxed)));
    }
    const std::int64_t number = sequence++;
    if (clientId.empty()) {
        ++stats.counters().errors;  // no session to publish on: the message is lost
        return;
    }
    const std::string data = "{\"p\":" + std::to_string(setup.publisherId) + ",\"s\":" + std::to_string(number) +
                             ",\"t\":" + std::to_string(stampMicros) + ",\"x\":\"";
    const std::size_t fixed = data.size() + 2;
    publishText = "{\"id\":\"" + nextId() + "\",\"channel\":\"" + roomChannel(room) + "\",\"clientId\":\"" + clientId +
                  "\",\"data\":" + data;
    publishText.append(plan.payloadBytes > fixed ? plan.payloadBytes - fixed : 0, 'x');
    publishText += "\"}}";
    send(publishText);
}

std::size_t LoadClient::randomRoom() {
    return setup.rooms[std::uniform_int_distribution<std::size_t>(0, setup.rooms.size() - 1)(random)];
}

}  // namespace korvane::load
