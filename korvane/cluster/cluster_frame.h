#pragma once

// The form in which a published message crosses between servers on Redis.
//
// A frame is a version byte (1), a flags byte (bit 0: the message has data), then
// five fields in this order, each a 4-byte big-endian length followed by that many
// bytes: the origin server's id, the channel, the message id, the publisher's
// clientId and the data (the raw JSON text, byte for byte; empty when the flags say
// there is none). Nothing follows the last field. Empty strings stand for absent
// fields, as in the message classes.
//
// Plain functions on values: any thread.

#include <memory>
#include <string>
#include <string_view>

#include "korvane/codec/messages.h"

namespace korvane::cluster {

struct ClusterFrame {
    std::string origin;
    // The message as the origin's subscribers saw it; its context is null.
    std::unique_ptr<bayeux::PublishRequest> message;
};

std::string encodeClusterFrame(const std::string& origin, const bayeux::PublishRequest& message);

// Throws std::invalid_argument: "Unknown cluster frame version" for a version other
// than 1, "Truncated cluster frame" when a field runs past the end, "Trailing bytes
// after cluster frame" when bytes are left over.
ClusterFrame decodeClusterFrame(std::string_view frame);

}  // namespace korvane::cluster
