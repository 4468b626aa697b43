#include "korvane/cluster/cluster_frame.h"

#include <cstdint>
#include <limits>
#include <stdexcept>

namespace korvane::cluster {

namespace {

constexpr char frameVersion = 1;
constexpr std::uint8_t hasDataFlag = 1;

void appendField(std::string& out, std::string_view field) {
    if (field.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw std::invalid_argument("Cluster frame field too long");
    }
    const auto length = static_cast<std::uint32_t>(field.size());
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<char>((length >> shift) & 0xff));
    }
    out.append(field.data(), field.size());
}

// Reads the fields of one frame from the front, keeping its place.
class FieldReader {
public:
    explicit FieldReader(std::string_view frame) : rest(frame) {}

    std::uint8_t byte() {
        need(1);
        const auto value = static_cast<std::uint8_t>(rest[0]);
        rest.remove_prefix(1);
        return value;
    }

    std::string_view field() {
        need(4);
        std::uint32_t length = 0;
        for (int i = 0; i < 4; ++i) {
            length = (length << 8) | static_cast<std::uint8_t>(rest[i]);
        }
        rest.remove_prefix(4);
        need(length);
        const std::string_view value = rest.substr(0, length);
        rest.remove_prefix(length);
        return value;
    }

    bool atEnd() const { return rest.empty(); }

private:
    void need(std::size_t count) const {
        if (rest.size() < count) {
            throw std::invalid_argument("Truncated cluster frame");
        }
    }

    std::string_view rest;
};

}  // namespace

std::string encodeClusterFrame(const std::string& origin, const bayeux::PublishRequest& message) {
    const std::string_view data = message.data ? message.data->view() : std::string_view();
    std::string out;
    out.reserve(2 + 5 * 4 + origin.size() + message.channel.size() + message.id.size() + message.clientId.size() +
                data.size());
    out.push_back(frameVersion);
    out.push_back(static_cast<char>(message.data ? hasDataFlag : 0));
    appendField(out, origin);
    appendField(out, message.channel);
    appendField(out, message.id);
    appendField(out, message.clientId);
    appendField(out, data);
    return out;
}

ClusterFrame decodeClusterFrame(std::string_view frame) {
    FieldReader reader(frame);
    if (reader.byte() != frameVersion) {
        throw std::invalid_argument("Unknown cluster frame version");
    }
    const std::uint8_t flags = reader.byte();
    ClusterFrame decoded;
    decoded.origin = std::string(reader.field());
    decoded.message = std::make_unique<bayeux::PublishRequest>(std::string(reader.field()));
    decoded.message->id = std::string(reader.field());
    decoded.message->clientId = std::string(reader.field());
    const std::string_view data = reader.field();
    if (flags & hasDataFlag) {
        decoded.message->data = std::make_shared<common::DataBuffer>(data);
    }
    if (!reader.atEnd()) {
        throw std::invalid_argument("Trailing bytes after cluster frame");
    }
    return decoded;
}

}  // namespace korvane::cluster
