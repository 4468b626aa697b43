// The wire codec against two general JSON libraries on the same job: read a Bayeux
// message, take channel, id and clientId, keep `data` as JSON text, write the message
// back. Our codec never builds a tree; the others parse into a DOM and write from it.

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>

#include "korvane/codec/deserialize.h"
#include "korvane/codec/serialize.h"

namespace {

using korvane::Message;
using korvane::common::DataBuffer;
using namespace korvane::bayeux;

// A chat message whose data object is exactly `dataBytes` long.
std::string publishText(std::size_t dataBytes) {
    std::string head = "{\"user\":\"alice\",\"room\":\"room1\",\"seq\":12345,\"ts\":1700000000000,"
                       "\"tags\":[\"a\",\"b\"],\"text\":\"";
    std::string tail = "\"}";
    std::string text(dataBytes - head.size() - tail.size(), 'x');
    for (std::size_t i = 7; i < text.size(); i += 8) {
        text[i] = ' ';
    }
    return "{\"channel\":\"/chat/room1\",\"clientId\":\"2v5f3t1wq8p9x0yzab\",\"id\":\"123\",\"data\":" + head + text +
           tail + "}";
}

const std::string handshakeSubscribeBatch =
    "[{\"channel\":\"/meta/handshake\",\"version\":\"1.0\",\"minimumVersion\":\"1.0\",\"id\":\"1\","
    "\"supportedConnectionTypes\":[\"websocket\",\"long-polling\",\"callback-polling\"],"
    "\"advice\":{\"timeout\":60000,\"interval\":0}},"
    "{\"channel\":\"/meta/subscribe\",\"clientId\":\"2v5f3t1wq8p9x0yzab\",\"subscription\":\"/chat/room1\",\"id\":\"2\"},"
    "{\"channel\":\"/meta/subscribe\",\"clientId\":\"2v5f3t1wq8p9x0yzab\",\"subscription\":\"/chat/room2\",\"id\":\"3\"}]";

void writeAll(std::unique_ptr<Message>& message, DataBuffer& out) {
    if (auto* batch = dynamic_cast<BayeuxContainer*>(message.get())) {
        out.push_back('[');
        for (std::size_t k = 0; k < batch->messages.size(); ++k) {
            if (k != 0) {
                out.push_back(',');
            }
            serializeBayeuxMessage(std::move(batch->messages[k]), out);
        }
        out.push_back(']');
    } else {
        serializeBayeuxMessage(std::move(message), out);
    }
}

void korvaneRoundTrip(benchmark::State& state, const std::string& text) {
    DataBuffer body(text);
    for (auto _ : state) {
        std::unique_ptr<Message> message = deserializeBayeuxMessage(body, true);
        DataBuffer out;
        writeAll(message, out);
        benchmark::DoNotOptimize(out.data);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

// nlohmann::json has no raw value: the data text is dumped once and spliced into the output.
std::string nlohmannWriteBack(const nlohmann::json& message) {
    std::string channel = message.value("channel", "");
    std::string id = message.value("id", "");
    std::string clientId = message.value("clientId", "");
    auto data = message.find("data");
    if (data == message.end()) {
        return message.dump();
    }
    std::string dataText = data->dump();
    std::string out = "{\"channel\":" + nlohmann::json(channel).dump();
    if (!id.empty()) {
        out += ",\"id\":" + nlohmann::json(id).dump();
    }
    out += ",\"clientId\":" + (clientId.empty() ? std::string("null") : nlohmann::json(clientId).dump());
    out += ",\"data\":" + dataText + "}";
    return out;
}

void nlohmannRoundTrip(benchmark::State& state, const std::string& text) {
    for (auto _ : state) {
        nlohmann::json document = nlohmann::json::parse(text);
        std::string out;
        if (document.is_array()) {
            out = "[";
            for (const auto& element : document) {
                out += (out.size() > 1 ? "," : "") + nlohmannWriteBack(element);
            }
            out += "]";
        } else {
            out = nlohmannWriteBack(document);
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

const char* rapidString(const rapidjson::Value& message, const char* name) {
    auto member = message.FindMember(name);
    return member != message.MemberEnd() && member->value.IsString() ? member->value.GetString() : "";
}

// Writes one message back; a publish carries its data as kept text through RawValue.
void rapidWriteBack(const rapidjson::Value& message, rapidjson::Writer<rapidjson::StringBuffer>& writer) {
    std::string channel = rapidString(message, "channel");
    std::string id = rapidString(message, "id");
    std::string clientId = rapidString(message, "clientId");
    auto data = message.FindMember("data");
    if (data == message.MemberEnd()) {
        message.Accept(writer);
        return;
    }
    rapidjson::StringBuffer dataText;
    rapidjson::Writer<rapidjson::StringBuffer> dataWriter(dataText);
    data->value.Accept(dataWriter);
    writer.StartObject();
    writer.Key("channel");
    writer.String(channel.c_str(), static_cast<rapidjson::SizeType>(channel.size()));
    if (!id.empty()) {
        writer.Key("id");
        writer.String(id.c_str(), static_cast<rapidjson::SizeType>(id.size()));
    }
    writer.Key("clientId");
    if (clientId.empty()) {
        writer.Null();
    } else {
        writer.String(clientId.c_str(), static_cast<rapidjson::SizeType>(clientId.size()));
    }
    writer.Key("data");
    writer.RawValue(dataText.GetString(), dataText.GetSize(), rapidjson::kObjectType);
    writer.EndObject();
}

void rapidjsonRoundTrip(benchmark::State& state, const std::string& text) {
    for (auto _ : state) {
        rapidjson::Document document;
        document.Parse(text.c_str(), text.size());
        rapidjson::StringBuffer out;
        rapidjson::Writer<rapidjson::StringBuffer> writer(out);
        if (document.IsArray()) {
            writer.StartArray();
            for (const auto& element : document.GetArray()) {
                rapidWriteBack(element, writer);
            }
            writer.EndArray(document.Size());
        } else {
            rapidWriteBack(document, writer);
        }
        benchmark::DoNotOptimize(out.GetString());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

const std::string publish200 = publishText(200);
const std::string publish4k = publishText(4096);

BENCHMARK_CAPTURE(korvaneRoundTrip, publish200, publish200);
BENCHMARK_CAPTURE(rapidjsonRoundTrip, publish200, publish200);
BENCHMARK_CAPTURE(nlohmannRoundTrip, publish200, publish200);
BENCHMARK_CAPTURE(korvaneRoundTrip, publish4k, publish4k);
BENCHMARK_CAPTURE(rapidjsonRoundTrip, publish4k, publish4k);
BENCHMARK_CAPTURE(nlohmannRoundTrip, publish4k, publish4k);
BENCHMARK_CAPTURE(korvaneRoundTrip, handshakeSubscribeBatch, handshakeSubscribeBatch);
BENCHMARK_CAPTURE(rapidjsonRoundTrip, handshakeSubscribeBatch, handshakeSubscribeBatch);
BENCHMARK_CAPTURE(nlohmannRoundTrip, handshakeSubscribeBatch, handshakeSubscribeBatch);

}  // namespace

BENCHMARK_MAIN();
