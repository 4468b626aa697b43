#include "korvane/codec/deserialize.h"

#include <array>
#include <stdexcept>
#include <string_view>

#include "korvane/codec/json_reader.h"

namespace korvane::bayeux {

namespace {

using common::DataBuffer;
using Key = std::string_view;

const char* const invalidRequest = "JSON parsing error, invalid bayeux request";

// The members of an object that a first walk passed, up to and including `channel`,
// with where each value lies, so that the walk of the class it names reads them without
// passing their keys again. Empty (and the class walk starts at the '{') when more
// members came before `channel` than fit.
struct WalkedMembers {
    struct Member {
        Key key;
        std::uint64_t valueStart;
        std::uint64_t valueEnd;
    };
    static constexpr std::size_t capacity = 8;
    std::array<Member, capacity> members;
    std::size_t count = 0;
};

// Walks the members of one object from its '{', or from behind `walked` after handing
// those over again. Keys are the raw bytes between the quotes, never decoded.
// `readMember(key)` reads the value of a key it wants; a value it leaves untouched is
// skipped. The end of the buffer behind a complete member ends the walk silently. A
// walked member whose reader stops short of its end is followed by reading on from
// there, as a walk from the '{' would.
template <class ReadMember>
void walkObject(std::uint64_t& cursor, const DataBuffer& buffer, ReadMember&& readMember,
                const WalkedMembers* walked = nullptr) {
    std::size_t replayed = 0;
    const std::size_t toReplay = walked == nullptr ? 0 : walked->count;
    char c = ',';
    if (toReplay != 0) {
        cursor = walked->members[0].valueStart;
    } else {
        json::expectChar(cursor, buffer, '{');
        c = json::peekChar(cursor, buffer);
        if (c == '}') {
            ++cursor;
        }
    }
    while (cursor < buffer.size && c != '}') {
        Key key;
        std::uint64_t valueStart;
        std::uint64_t knownEnd = 0;
        if (replayed < toReplay) {
            const WalkedMembers::Member& member = walked->members[replayed++];
            key = member.key;
            cursor = valueStart = member.valueStart;
            knownEnd = member.valueEnd;
        } else {
            json::skipWhitespace(cursor, buffer);
            std::uint64_t keyStart = cursor + 1;
            json::skipString(cursor, buffer);
            key = Key(reinterpret_cast<const char*>(buffer.data) + keyStart, cursor - 1 - keyStart);
            json::expectChar(cursor, buffer, ':');
            json::skipWhitespace(cursor, buffer);
            valueStart = cursor;
        }
        readMember(key);
        if (cursor == valueStart) {
            if (knownEnd != 0) {
                cursor = knownEnd;
            } else {
                json::skipValue(cursor, buffer);
            }
        } else if (knownEnd != 0 && cursor != knownEnd) {
            replayed = toReplay;
        }
        if (cursor >= buffer.size) {
            return;
        }
        c = json::nextChar(cursor, buffer);
        if (c != '}' && c != ',') {
            throw std::invalid_argument("JSON message parsing error, invalid bayeux request");
        }
    }
}

// Skips one value and gives its raw text, which stays in `buffer`.
std::string_view rawValue(std::uint64_t& cursor, const DataBuffer& buffer) {
    const std::uint64_t start = cursor;
    json::skipValue(cursor, buffer);
    return std::string_view(reinterpret_cast<const char*>(buffer.data) + start, cursor - start);
}

// Reads a list member; a repeated member replaces the earlier list.
void readList(std::uint64_t& cursor, const DataBuffer& buffer, std::vector<std::string>& list) {
    list.clear();
    json::readStringList(cursor, buffer, '[', ']', list);
}

Advice::Reconnect reconnectFromText(const std::string& text) {
    if (text == "retry") {
        return Advice::Retry;
    }
    if (text == "handshake") {
        return Advice::Handshake;
    }
    return Advice::None;
}

// The plain members of one advice object; nested objects are skipped here.
void readAdviceFields(std::uint64_t& cursor, const DataBuffer& buffer, Advice& advice) {
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "reconnect") {
            advice.reconnect = reconnectFromText(json::readStringOrNull(cursor, buffer));
        } else if (key == "interval") {
            advice.interval = json::readInteger(cursor, buffer);
        } else if (key == "timeout") {
            advice.timeout = json::readInteger(cursor, buffer);
        } else if (key == "multipleClients") {
            advice.multipleClients = json::readBoolean(cursor, buffer);
        } else if (key == "hosts") {
            readList(cursor, buffer, advice.hosts);
        }
    });
}

// An advice object, read twice: once for its own members, once more from its '{' for the
// members whose value is an object, which are the advice per connection type. The
// nested entries are read as plain advice, so the recursion stops at one level.
std::shared_ptr<BayeuxAdvice> readAdvice(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto advice = std::make_shared<BayeuxAdvice>();
    std::uint64_t start = cursor;
    readAdviceFields(cursor, buffer, *advice);
    cursor = start;
    walkObject(cursor, buffer, [&](Key key) {
        if (cursor < buffer.size && buffer.data[cursor] == '{') {
            Advice entry;
            readAdviceFields(cursor, buffer, entry);
            advice->transportAdvice.try_emplace(std::string(key), std::move(entry));
        }
    });
    return advice;
}

bool readBaseMember(Key key, std::uint64_t& cursor, const DataBuffer& buffer, BayeuxBase& message) {
    if (key == "id") {
        message.id = json::readStringOrNull(cursor, buffer);
    } else if (key == "clientId") {
        message.clientId = json::readStringOrNull(cursor, buffer);
    } else {
        return false;
    }
    return true;
}

bool readResponseMember(Key key, std::uint64_t& cursor, const DataBuffer& buffer, BayeuxResponse& message) {
    if (key == "successful") {
        message.successful = json::readBoolean(cursor, buffer);
    } else if (key == "error") {
        message.error = json::readStringOrNull(cursor, buffer);
    } else {
        return readBaseMember(key, cursor, buffer, message);
    }
    return true;
}

// The members that a handshake request and its response share.
template <class Handshake>
bool readHandshakeMember(Key key, std::uint64_t& cursor, const DataBuffer& buffer, Handshake& message) {
    if (key == "version") {
        message.version = json::readStringOrNull(cursor, buffer);
    } else if (key == "minimumVersion") {
        message.minimumVersion = json::readStringOrNull(cursor, buffer);
    } else if (key == "supportedConnectionTypes") {
        readList(cursor, buffer, message.supportedConnectionTypes);
    } else {
        return false;
    }
    return true;
}

std::unique_ptr<Message> parseHandshakeRequest(std::uint64_t& cursor, const DataBuffer& buffer,
                                               const WalkedMembers& walked) {
    auto message = std::make_unique<HandshakeRequest>();
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "ext") {
            message->ext = rawValue(cursor, buffer);
        } else if (!readBaseMember(key, cursor, buffer, *message)) {
            readHandshakeMember(key, cursor, buffer, *message);
        }
    }, &walked);
    return message;
}

std::unique_ptr<Message> parseHandshakeResponse(std::uint64_t& cursor, const DataBuffer& buffer,
                                                const WalkedMembers& walked) {
    auto message = std::make_unique<HandshakeResponse>();
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "advice") {
            message->advice = readAdvice(cursor, buffer);
        } else if (!readResponseMember(key, cursor, buffer, *message)) {
            readHandshakeMember(key, cursor, buffer, *message);
        }
    }, &walked);
    return message;
}

// ConnectTemplate (connect_template.h) copies what this reads; a member read here is
// one it must copy too.
std::unique_ptr<Message> parseConnectRequest(std::uint64_t& cursor, const DataBuffer& buffer,
                                             const WalkedMembers& walked) {
    auto message = std::make_unique<ConnectStreamRequest>();
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "connectionType") {
            message->connectionType = json::readStringOrNull(cursor, buffer);
        } else if (key == "advice") {
            message->advice = readAdvice(cursor, buffer);
        } else {
            readBaseMember(key, cursor, buffer, *message);
        }
    }, &walked);
    return message;
}

std::unique_ptr<Message> parseConnectResponse(std::uint64_t& cursor, const DataBuffer& buffer,
                                              const WalkedMembers& walked) {
    auto message = std::make_unique<ConnectStreamResponse>();
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "advice") {
            message->advice = readAdvice(cursor, buffer);
        } else {
            readResponseMember(key, cursor, buffer, *message);
        }
    }, &walked);
    return message;
}

std::unique_ptr<Message> parseDisconnectRequest(std::uint64_t& cursor, const DataBuffer& buffer,
                                                const WalkedMembers& walked) {
    auto message = std::make_unique<DisconnectRequest>();
    walkObject(
        cursor, buffer, [&](Key key) { readBaseMember(key, cursor, buffer, *message); }, &walked);
    return message;
}

std::unique_ptr<Message> parseDisconnectResponse(std::uint64_t& cursor, const DataBuffer& buffer,
                                                 const WalkedMembers& walked) {
    auto message = std::make_unique<DisconnectResponse>();
    walkObject(
        cursor, buffer, [&](Key key) { readResponseMember(key, cursor, buffer, *message); }, &walked);
    return message;
}

// Subscribe and unsubscribe requests differ only in their class, built by the caller.
void readSubscriptionRequest(std::uint64_t& cursor, const DataBuffer& buffer, const WalkedMembers& walked,
                             BayeuxBase& message, std::string& subscription) {
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "subscription") {
            subscription = json::readStringOrNull(cursor, buffer);
        } else {
            readBaseMember(key, cursor, buffer, message);
        }
    }, &walked);
}

// Subscribe and unsubscribe responses differ only in their class, built by the caller.
void readSubscriptionResponse(std::uint64_t& cursor, const DataBuffer& buffer, const WalkedMembers& walked,
                              BayeuxResponse& message, std::string& subscription,
                              std::shared_ptr<BayeuxAdvice>& advice) {
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "subscription") {
            subscription = json::readStringOrNull(cursor, buffer);
        } else if (key == "advice") {
            advice = readAdvice(cursor, buffer);
        } else {
            readResponseMember(key, cursor, buffer, message);
        }
    }, &walked);
}

std::unique_ptr<Message> parseSubscribeRequest(std::uint64_t& cursor, const DataBuffer& buffer,
                                               const WalkedMembers& walked) {
    auto message = std::make_unique<SubscribeRequest>(std::string(), std::string());
    readSubscriptionRequest(cursor, buffer, walked, *message, message->subscription);
    return message;
}

std::unique_ptr<Message> parseUnsubscribeRequest(std::uint64_t& cursor, const DataBuffer& buffer,
                                                 const WalkedMembers& walked) {
    auto message = std::make_unique<UnsubscribeRequest>(std::string(), std::string());
    readSubscriptionRequest(cursor, buffer, walked, *message, message->subscription);
    return message;
}

std::unique_ptr<Message> parseSubscribeResponse(std::uint64_t& cursor, const DataBuffer& buffer,
                                                const WalkedMembers& walked) {
    auto message = std::make_unique<SubscribeResponse>();
    readSubscriptionResponse(cursor, buffer, walked, *message, message->subscription, message->advice);
    return message;
}

std::unique_ptr<Message> parseUnsubscribeResponse(std::uint64_t& cursor, const DataBuffer& buffer,
                                                  const WalkedMembers& walked) {
    auto message = std::make_unique<UnsubscribeResponse>();
    readSubscriptionResponse(cursor, buffer, walked, *message, message->subscription, message->advice);
    return message;
}

// Any channel that is not one of the five meta channels. A `successful` member makes
// the object a response; otherwise it is a request whose `data` value is kept as the
// raw bytes of its text, never decoded.
std::unique_ptr<Message> parsePublish(std::uint64_t& cursor, const DataBuffer& buffer, const WalkedMembers& walked) {
    std::string channel;
    std::string id;
    std::string clientId;
    std::string error;
    std::shared_ptr<DataBuffer> data;
    bool successful = false;
    bool hasSuccessful = false;
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "channel") {
            channel = json::readStringOrNull(cursor, buffer);
        } else if (key == "id") {
            id = json::readStringOrNull(cursor, buffer);
        } else if (key == "clientId") {
            clientId = json::readStringOrNull(cursor, buffer);
        } else if (key == "data") {
            const std::string_view text = rawValue(cursor, buffer);
            data = std::make_shared<DataBuffer>();
            data->append(text);
        } else if (key == "error") {
            error = json::readStringOrNull(cursor, buffer);
        } else if (key == "successful") {
            successful = json::readBoolean(cursor, buffer);
            hasSuccessful = true;
        }
    }, &walked);
    if (hasSuccessful) {
        auto response = std::make_unique<PublishResponse>(channel);
        response->id = std::move(id);
        response->clientId = std::move(clientId);
        response->successful = successful;
        response->error = std::move(error);
        return response;
    }
    auto request = std::make_unique<PublishRequest>(channel);
    request->id = std::move(id);
    request->clientId = std::move(clientId);
    request->data = data ? std::move(data) : std::make_shared<DataBuffer>();
    return request;
}

using ClassParser = std::unique_ptr<Message> (*)(std::uint64_t&, const DataBuffer&, const WalkedMembers&);

struct MetaChannelParsers {
    Key channel;
    ClassParser request;
    ClassParser response;
};

const MetaChannelParsers metaChannels[] = {
    {"/meta/handshake", parseHandshakeRequest, parseHandshakeResponse},
    {"/meta/connect", parseConnectRequest, parseConnectResponse},
    {"/meta/disconnect", parseDisconnectRequest, parseDisconnectResponse},
    {"/meta/subscribe", parseSubscribeRequest, parseSubscribeResponse},
    {"/meta/unsubscribe", parseUnsubscribeRequest, parseUnsubscribeResponse},
};

ClassParser classParserFor(const std::string& channel, bool isRequest) {
    for (const MetaChannelParsers& meta : metaChannels) {
        if (channel == meta.channel) {
            return isRequest ? meta.request : meta.response;
        }
    }
    return parsePublish;
}

// The first walk looks only for `channel`, noting the members it passes; the class that
// `channel` names then reads the object, those members first, on from behind `channel`.
// The cursor is stepped back onto the last byte that class walk consumed, normally the
// closing brace, which this walk then reads to end.
std::unique_ptr<Message> parseObject(std::uint64_t& cursor, const DataBuffer& buffer, bool isRequest) {
    const std::uint64_t entry = cursor;
    WalkedMembers walked;
    bool overflowed = false;
    std::unique_ptr<Message> message;
    walkObject(cursor, buffer, [&](Key key) {
        const std::uint64_t valueStart = cursor;
        ClassParser parse = nullptr;
        if (key == "channel") {
            parse = classParserFor(json::readStringOrNull(cursor, buffer), isRequest);
        } else {
            json::skipValue(cursor, buffer);
        }
        if (walked.count == WalkedMembers::capacity) {
            overflowed = true;
        } else {
            walked.members[walked.count++] = {key, valueStart, cursor};
        }
        if (parse == nullptr) {
            return;
        }
        if (overflowed) {
            walked.count = 0;
            cursor = entry;
        }
        message = parse(cursor, buffer, walked);
        --cursor;
    });
    if (!message) {
        throw std::invalid_argument(invalidRequest);
    }
    return message;
}

// An array of one message is that message; a container is made only for a second one.
std::unique_ptr<Message> parseArray(std::uint64_t& cursor, const DataBuffer& buffer, bool isRequest) {
    std::unique_ptr<Message> first;
    std::unique_ptr<BayeuxContainer> container;
    json::expectChar(cursor, buffer, '[');
    for (;;) {
        json::skipWhitespace(cursor, buffer);
        if (cursor >= buffer.size || buffer.data[cursor] != '{') {
            throw std::invalid_argument("Invalid JSON, expected '{'");
        }
        std::unique_ptr<Message> message = parseObject(cursor, buffer, isRequest);
        if (container) {
            container->messages.push_back(std::move(message));
        } else if (!first) {
            first = std::move(message);
        } else {
            container = std::make_unique<BayeuxContainer>();
            container->messages.push_back(std::move(first));
            container->messages.push_back(std::move(message));
        }
        char c = json::nextChar(cursor, buffer);
        if (c == ']') {
            if (container) {
                return container;
            }
            return first;
        }
        if (c != ',' || cursor >= buffer.size) {
            throw std::invalid_argument("JSON parsing error, invalid bayeux message array");
        }
    }
}

}  // namespace

std::unique_ptr<Message> deserializeBayeuxMessage(DataBuffer& buffer, bool isRequest) {
    std::uint64_t cursor = 0;
    char first = json::peekChar(cursor, buffer);
    if (first == '[') {
        return parseArray(cursor, buffer, isRequest);
    }
    if (first == '{') {
        return parseObject(cursor, buffer, isRequest);
    }
    throw std::invalid_argument("JSON parsing error, expected array or object");
}

}  // namespace korvane::bayeux
