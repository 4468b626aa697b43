#include "korvane/codec/deserialize.h"

#include <stdexcept>
#include <string_view>

#include "korvane/codec/json_reader.h"

namespace korvane::bayeux {

namespace {

using common::DataBuffer;
using Key = std::string_view;

const char* const invalidRequest = "JSON parsing error, invalid bayeux request";

// Walks the members of one object from its '{'. Keys are the raw bytes between the
// quotes, never decoded. `readMember(key)` reads the value of a key it wants; a value
// it leaves untouched is skipped. The end of the buffer behind a complete member ends
// the walk silently.
template <class ReadMember>
void walkObject(std::uint64_t& cursor, const DataBuffer& buffer, ReadMember&& readMember) {
    json::expectChar(cursor, buffer, '{');
    char c = json::peekChar(cursor, buffer);
    if (c == '}') {
        ++cursor;
    }
    while (cursor < buffer.size && c != '}') {
        json::skipWhitespace(cursor, buffer);
        std::uint64_t keyStart = cursor + 1;
        json::skipString(cursor, buffer);
        Key key(reinterpret_cast<const char*>(buffer.data) + keyStart, cursor - 1 - keyStart);
        json::expectChar(cursor, buffer, ':');
        json::skipWhitespace(cursor, buffer);
        std::uint64_t valueStart = cursor;
        readMember(key);
        if (cursor == valueStart) {
            json::skipValue(cursor, buffer);
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

std::unique_ptr<Message> parseHandshakeRequest(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto message = std::make_unique<HandshakeRequest>();
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "ext") {
            message->ext = rawValue(cursor, buffer);
        } else if (!readBaseMember(key, cursor, buffer, *message)) {
            readHandshakeMember(key, cursor, buffer, *message);
        }
    });
    return message;
}

std::unique_ptr<Message> parseHandshakeResponse(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto message = std::make_unique<HandshakeResponse>();
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "advice") {
            message->advice = readAdvice(cursor, buffer);
        } else if (!readResponseMember(key, cursor, buffer, *message)) {
            readHandshakeMember(key, cursor, buffer, *message);
        }
    });
    return message;
}

std::unique_ptr<Message> parseConnectRequest(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto message = std::make_unique<ConnectStreamRequest>();
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "connectionType") {
            message->connectionType = json::readStringOrNull(cursor, buffer);
        } else if (key == "advice") {
            message->advice = readAdvice(cursor, buffer);
        } else {
            readBaseMember(key, cursor, buffer, *message);
        }
    });
    return message;
}

std::unique_ptr<Message> parseConnectResponse(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto message = std::make_unique<ConnectStreamResponse>();
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "advice") {
            message->advice = readAdvice(cursor, buffer);
        } else {
            readResponseMember(key, cursor, buffer, *message);
        }
    });
    return message;
}

std::unique_ptr<Message> parseDisconnectRequest(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto message = std::make_unique<DisconnectRequest>();
    walkObject(cursor, buffer, [&](Key key) { readBaseMember(key, cursor, buffer, *message); });
    return message;
}

std::unique_ptr<Message> parseDisconnectResponse(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto message = std::make_unique<DisconnectResponse>();
    walkObject(cursor, buffer, [&](Key key) { readResponseMember(key, cursor, buffer, *message); });
    return message;
}

// Subscribe and unsubscribe requests differ only in their class, built by the caller.
void readSubscriptionRequest(std::uint64_t& cursor, const DataBuffer& buffer, BayeuxBase& message,
                             std::string& subscription) {
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "subscription") {
            subscription = json::readStringOrNull(cursor, buffer);
        } else {
            readBaseMember(key, cursor, buffer, message);
        }
    });
}

// Subscribe and unsubscribe responses differ only in their class, built by the caller.
void readSubscriptionResponse(std::uint64_t& cursor, const DataBuffer& buffer, BayeuxResponse& message,
                              std::string& subscription, std::shared_ptr<BayeuxAdvice>& advice) {
    walkObject(cursor, buffer, [&](Key key) {
        if (key == "subscription") {
            subscription = json::readStringOrNull(cursor, buffer);
        } else if (key == "advice") {
            advice = readAdvice(cursor, buffer);
        } else {
            readResponseMember(key, cursor, buffer, message);
        }
    });
}

std::unique_ptr<Message> parseSubscribeRequest(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto message = std::make_unique<SubscribeRequest>(std::string(), std::string());
    readSubscriptionRequest(cursor, buffer, *message, message->subscription);
    return message;
}

std::unique_ptr<Message> parseUnsubscribeRequest(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto message = std::make_unique<UnsubscribeRequest>(std::string(), std::string());
    readSubscriptionRequest(cursor, buffer, *message, message->subscription);
    return message;
}

std::unique_ptr<Message> parseSubscribeResponse(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto message = std::make_unique<SubscribeResponse>();
    readSubscriptionResponse(cursor, buffer, *message, message->subscription, message->advice);
    return message;
}

std::unique_ptr<Message> parseUnsubscribeResponse(std::uint64_t& cursor, const DataBuffer& buffer) {
    auto message = std::make_unique<UnsubscribeResponse>();
    readSubscriptionResponse(cursor, buffer, *message, message->subscription, message->advice);
    return message;
}

// Any channel that is not one of the five meta channels. A `successful` member makes
// the object a response; otherwise it is a request whose `data` value is kept as the
// raw bytes of its text, never decoded.
std::unique_ptr<Message> parsePublish(std::uint64_t& cursor, const DataBuffer& buffer) {
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
    });
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

using ClassParser = std::unique_ptr<Message> (*)(std::uint64_t&, const DataBuffer&);

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

// The first pass looks only for `channel`; the class it names then reads the object
// again from its '{'. The cursor is stepped back onto the last byte that class walk
// consumed, normally the closing brace, which this walk then reads to end.
std::unique_ptr<Message> parseObject(std::uint64_t& cursor, const DataBuffer& buffer, bool isRequest) {
    std::uint64_t entry = cursor;
    std::unique_ptr<Message> message;
    walkObject(cursor, buffer, [&](Key key) {
        if (key != "channel") {
            return;
        }
        ClassParser parse = classParserFor(json::readStringOrNull(cursor, buffer), isRequest);
        cursor = entry;
        message = parse(cursor, buffer);
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
