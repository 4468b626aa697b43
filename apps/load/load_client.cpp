#include "load/load_client.h"

#include <algorithm>
#include <boost/asio/post.hpp>

#include "load/message_scanner.h"

namespace korvane::load {
namespace {

constexpr std::int64_t kRetryAfterFailureMillis = 1000;

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

std::string roomChannel(std::size_t room) { return "/rooms/" + std::to_string(room); }

}  // namespace

LoadClient::LoadClient(boost::asio::io_context& io, ThreadStats& stats, RunPlan& plan, ClientSetup setup)
    : io_(io),
      stats_(stats),
      plan_(plan),
      setup_(std::move(setup)),
      connectTimer_(io),
      publishTimer_(io),
      random_(setup_.seed),
      subscribed_(setup_.rooms.size(), false) {}

LoadClient::~LoadClient() {
    if (link_) {
        link_->close();
    }
}

void LoadClient::startAfter(std::chrono::microseconds delay) {
    connectTimer_.expires_after(delay);
    connectTimer_.async_wait([this](boost::system::error_code ec) {
        if (!ec) {
            handshake();
        }
    });
}

void LoadClient::startPublishing() {
    if (setup_.role == Role::churner) {
        handshake();
        return;
    }
    const std::int64_t stagger = plan_.publishIntervalMicros * setup_.publisherId /
                                 std::max<std::int64_t>(1, static_cast<std::int64_t>(plan_.publisherCount));
    nextSend_ = plan_.publishStart.load(std::memory_order_relaxed) + stagger;
    publishDue();
}

void LoadClient::openLink() {
    LinkEvents events{[this](std::string_view body) { onBody(body); },
                      [this](const std::string& what) { onFailure(what); }};
    link_ = setup_.transport == Transport::webSocket ? makeWebSocketLink(io_, setup_.target, std::move(events))
                                                     : makeLongPollingLink(io_, setup_.target, std::move(events));
}

void LoadClient::send(const std::string& message, bool isConnect) {
    if (!link_) {
        openLink();
    }
    link_->send(message, isConnect);
}

void LoadClient::handshake() {
    ++session_;
    clientId_.clear();
    connectOutstanding_ = false;
    firstConnect_ = true;
    connectInterval_ = 0;
    const char* type = setup_.transport == Transport::webSocket ? "websocket" : "long-polling";
    send("{\"id\":\"" + nextId() +
         "\",\"channel\":\"/meta/handshake\",\"version\":\"1.0\",\"minimumVersion\":\"1.0\","
         "\"supportedConnectionTypes\":[\"" +
         type + "\"]}");
}

std::string LoadClient::nextId() { return std::to_string(++messageId_); }

void LoadClient::onBody(std::string_view body) {
    const auto messages = splitObjects(body);
    if (messages.empty()) {
        ++stats_.counters().errors;
        return;
    }
    for (std::string_view message : messages) {
        const auto channel = stringField(message, "channel");
        if (!channel) {
            ++stats_.counters().errors;
        } else if (startsWith(*channel, "/meta/")) {
            onMeta(*channel, message);
        } else if (message.find("\"successful\"") != std::string_view::npos) {
            onPublishReply(message);
        } else {
            onDelivery(message);
        }
    }
}

void LoadClient::onMeta(std::string_view channel, std::string_view message) {
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

void LoadClient::onHandshakeReply(std::string_view message) {
    const auto clientId = stringField(message, "clientId");
    if (!isTrue(message, "successful") || !clientId) {
        ++stats_.counters().errors;
        rehandshakeAfter(kRetryAfterFailureMillis);
        return;
    }
    ++stats_.counters().handshakes;
    clientId_ = std::string(*clientId);
    if (setup_.role != Role::churner) {
        sendConnect();
    }
    if (setup_.role == Role::publisher) {
        up_ = true;
        stats_.clientUp();
        return;
    }
    subscribeAll();
}

void LoadClient::subscribeAll() {
    for (std::size_t room : setup_.rooms) {
        send("{\"id\":\"" + nextId() + "\",\"channel\":\"/meta/subscribe\",\"clientId\":\"" + clientId_ +
             "\",\"subscription\":\"" + roomChannel(room) + "\"}");
    }
}

void LoadClient::onSubscribeReply(std::string_view message) {
    const auto subscription = stringField(message, "subscription");
    if (!isTrue(message, "successful") || !subscription) {
        ++stats_.counters().errors;
        return;
    }
    for (std::size_t i = 0; i < setup_.rooms.size(); ++i) {
        if (subscribed_[i] || *subscription != roomChannel(setup_.rooms[i])) {
            continue;
        }
        subscribed_[i] = true;
        ++subscribedCount_;
        if (setup_.role == Role::subscriber) {
            plan_.subscribers[setup_.rooms[i]].fetch_add(1, std::memory_order_relaxed);
        }
    }
    if (subscribedCount_ != setup_.rooms.size() || up_) {
        return;
    }
    up_ = true;
    stats_.clientUp();
    if (setup_.role == Role::churner) {
        publish(randomRoom(), nowMicros());
    }
}

void LoadClient::sendConnect() {
    connectOutstanding_ = true;
    std::string message = "{\"id\":\"" + nextId() + "\",\"channel\":\"/meta/connect\",\"clientId\":\"" + clientId_ +
                          "\",\"connectionType\":\"" +
                          (setup_.transport == Transport::webSocket ? "websocket" : "long-polling") + "\"";
    // The first connect of a session asks for an answer at once, as browsers do.
    message += firstConnect_ ? ",\"advice\":{\"timeout\":0}}" : "}";
    firstConnect_ = false;
    send(message, true);
}

void LoadClient::scheduleConnect(std::int64_t afterMillis) {
    if (afterMillis <= 0) {
        sendConnect();
        return;
    }
    connectTimer_.expires_after(std::chrono::milliseconds(afterMillis));
    connectTimer_.async_wait([this, session = session_](boost::system::error_code ec) {
        if (!ec && session == session_) {
            sendConnect();
        }
    });
}

void LoadClient::onConnectReply(std::string_view message) {
    if (!connectOutstanding_) {
        return;  // the answer to a connect of a session given up
    }
    connectOutstanding_ = false;
    if (const auto interval = numberField(message, "interval")) {
        connectInterval_ = *interval;
    }
    const auto reconnect = stringField(message, "reconnect");
    if (reconnect && *reconnect == "none") {
        ++stats_.counters().errors;
        loseSession();
        return;
    }
    const bool successful = isTrue(message, "successful");
    if ((reconnect && *reconnect == "handshake") || (!successful && !(reconnect && *reconnect == "retry"))) {
        ++stats_.counters().rehandshakes;
        loseSession();
        handshake();
        return;
    }
    if (!successful) {
        ++stats_.counters().errors;
    }
    scheduleConnect(connectInterval_);
}

void LoadClient::onPublishReply(std::string_view message) {
    if (!isTrue(message, "successful")) {
        ++stats_.counters().errors;
        return;
    }
    if (setup_.role != Role::churner) {
        return;
    }
    for (std::size_t room : setup_.rooms) {
        send("{\"id\":\"" + nextId() + "\",\"channel\":\"/meta/unsubscribe\",\"clientId\":\"" + clientId_ +
             "\",\"subscription\":\"" + roomChannel(room) + "\"}");
    }
}

// A churner leaves once the last of its rooms is let go of.
void LoadClient::onUnsubscribeReply(std::string_view message) {
    if (setup_.role != Role::churner || subscribedCount_ == 0) {
        return;
    }
    if (!isTrue(message, "successful")) {
        ++stats_.counters().errors;
    }
    if (--subscribedCount_ == 0) {
        send("{\"id\":\"" + nextId() + "\",\"channel\":\"/meta/disconnect\",\"clientId\":\"" + clientId_ + "\"}");
    }
}

void LoadClient::onDisconnectReply() {
    if (setup_.role != Role::churner) {
        return;
    }
    loseSession();
    // The link is inside its callback: it is let go of once that returned.
    boost::asio::post(io_, [this, link = std::shared_ptr<Link>(std::move(link_))] {
        if (plan_.isPublishing(nowMicros())) {
            handshake();
        }
    });
}

void LoadClient::onDelivery(std::string_view message) {
    if (setup_.role != Role::subscriber) {
        return;
    }
    const auto stamp = deliveryStamp(message);
    if (!stamp || stamp->publisher < 0 || static_cast<std::size_t>(stamp->publisher) >= plan_.publisherCount) {
        ++stats_.counters().errors;
        return;
    }
    if (lastSequence_.empty()) {
        lastSequence_.assign(plan_.publisherCount, -1);
    }
    std::int64_t& last = lastSequence_[static_cast<std::size_t>(stamp->publisher)];
    if (stamp->sequence == last) {
        ++stats_.counters().duplicates;
        return;
    }
    if (stamp->sequence < last) {
        ++stats_.counters().reordered;
    } else {
        last = stamp->sequence;
    }
    if (plan_.isMeasured(stamp->sentMicros)) {
        ++stats_.counters().delivered;
        stats_.recordLatency(static_cast<std::uint64_t>(std::max<std::int64_t>(0, nowMicros() - stamp->sentMicros)));
    }
}

void LoadClient::onFailure(const std::string&) {
    ++stats_.counters().errors;
    loseSession();
    rehandshakeAfter(kRetryAfterFailureMillis);
}

// The session is gone: its subscriptions stop counting and its timers stop.
void LoadClient::loseSession() {
    ++session_;
    clientId_.clear();
    connectOutstanding_ = false;
    for (std::size_t i = 0; i < setup_.rooms.size(); ++i) {
        if (subscribed_[i] && setup_.role == Role::subscriber) {
            plan_.subscribers[setup_.rooms[i]].fetch_sub(1, std::memory_order_relaxed);
        }
        subscribed_[i] = false;
    }
    subscribedCount_ = 0;
    if (up_) {
        up_ = false;
        stats_.clientDown();
    }
}

void LoadClient::rehandshakeAfter(std::int64_t millis) {
    connectTimer_.expires_after(std::chrono::milliseconds(millis));
    connectTimer_.async_wait([this, session = session_](boost::system::error_code ec) {
        if (!ec && session == session_ && (setup_.role != Role::churner || plan_.isPublishing(nowMicros()))) {
            ++stats_.counters().rehandshakes;
            handshake();
        }
    });
}

// Sends every publish whose time has come, late ones included, then sleeps until the next.
void LoadClient::publishDue() {
    const std::int64_t now = nowMicros();
    while (nextSend_ <= now && plan_.isPublishing(nextSend_)) {
        publish(randomRoom(), nextSend_);
        nextSend_ += plan_.publishIntervalMicros;
    }
    if (!plan_.isPublishing(nextSend_)) {
        return;
    }
    publishTimer_.expires_after(std::chrono::microseconds(nextSend_ - now));
    publishTimer_.async_wait([this](boost::system::error_code ec) {
        if (!ec) {
            publishDue();
        }
    });
}

void LoadClient::publish(std::size_t room, std::int64_t stampMicros) {
    const bool measured = plan_.isMeasured(stampMicros);
    if (measured) {
        ++stats_.counters().sent;
        stats_.counters().expected += static_cast<std::uint64_t>(
            std::max<std::int64_t>(0, plan_.subscribers[room].load(std::memory_order_relaxed)));
    }
    const std::int64_t sequence = sequence_++;
    if (clientId_.empty()) {
        ++stats_.counters().errors;  // no session to publish on: the message is lost
        return;
    }
    const std::string data = "{\"p\":" + std::to_string(setup_.publisherId) + ",\"s\":" + std::to_string(sequence) +
                             ",\"t\":" + std::to_string(stampMicros) + ",\"x\":\"";
    const std::size_t fixed = data.size() + 2;
    message_ = "{\"id\":\"" + nextId() + "\",\"channel\":\"" + roomChannel(room) + "\",\"clientId\":\"" + clientId_ +
               "\",\"data\":" + data;
    message_.append(plan_.payloadBytes > fixed ? plan_.payloadBytes - fixed : 0, 'x');
    message_ += "\"}}";
    send(message_);
}

std::size_t LoadClient::randomRoom() {
    return setup_.rooms[std::uniform_int_distribution<std::size_t>(0, setup_.rooms.size() - 1)(random_)];
}

}  // namespace korvane::load
