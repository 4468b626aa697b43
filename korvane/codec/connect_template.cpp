#include "korvane/codec/connect_template.h"

#include <cstring>
#include <exception>
#include <string_view>
#include <typeinfo>

#include "korvane/codec/deserialize.h"
#include "korvane/codec/utf8.h"

namespace korvane::bayeux {

namespace {

// The bytes that open the value of an "id" member written without spaces.
constexpr std::string_view idOpening = "\"id\":\"";

// Printable ASCII but the quote and the backslash: a string body that reads as itself.
bool isPlain(char c) { return c >= 0x20 && c <= 0x7e && c != '"' && c != '\\'; }

bool isPlain(std::string_view text) {
    for (char c : text) {
        if (!isPlain(c)) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::unique_ptr<Message> ConnectTemplate::readRequest(common::DataBuffer& candidate) {
    if (std::unique_ptr<Message> known = read(candidate)) {
        return known;
    }
    std::unique_ptr<Message> parsed = deserializeUtf8Request(candidate);
    learn(candidate, *parsed);
    return parsed;
}

std::unique_ptr<ConnectStreamRequest> ConnectTemplate::read(const common::DataBuffer& candidate) {
    if (!kept || kept->size == 0) {
        return nullptr;
    }
    const Kept& known = *kept;
    const std::string_view now = candidate.view();
    // From the id's closing quote to the end.
    const std::size_t tail = known.size - known.idEnd;
    if (now.size() < known.idStart + tail || std::memcmp(now.data(), known.text, known.idStart) != 0) {
        return nullptr;
    }
    const std::size_t end = now.size() - tail;
    if (std::memcmp(now.data() + end, known.text + known.idEnd, tail) != 0 ||
        !isPlain(now.substr(known.idStart, end - known.idStart))) {
        return nullptr;
    }
    missesInARow = 0;
    // Each string made whole and moved in: an assign to an empty string takes the general replace.
    auto request = std::make_unique<ConnectStreamRequest>();
    request->id = std::string(now.data() + known.idStart, end - known.idStart);
    request->clientId = std::string(known.text + known.clientIdAt, known.clientIdSize);
    request->connectionType = std::string(known.text + known.typeAt, known.typeSize);
    return request;
}

void ConnectTemplate::learn(const common::DataBuffer& candidate, const Message& parsed) {
    if (typeid(parsed) != typeid(ConnectStreamRequest)) {
        return;
    }
    if (!seenAConnect) {
        seenAConnect = true;
        return;
    }
    if (missesInARow == missesBeforeGivingUp) {
        return;
    }
    ++missesInARow;
    keep(candidate, static_cast<const ConnectStreamRequest&>(parsed));
}

void ConnectTemplate::keep(const common::DataBuffer& candidate, const ConnectStreamRequest& parsed) {
    if (kept) {
        kept->size = 0;
    }
    const std::string_view whole = candidate.view();
    if (parsed.advice || parsed.id.empty() || !isPlain(parsed.id) || whole.size() > Kept::capacity ||
        whole.find('\\') != std::string_view::npos) {
        return;
    }
    const std::string shown = std::string(idOpening) + parsed.id + '"';
    const std::size_t at = whole.find(shown);
    if (at == std::string_view::npos || whole.find(shown, at + 1) != std::string_view::npos) {
        return;
    }
    const std::size_t start = at + idOpening.size();
    const std::size_t end = start + parsed.id.size();
    // The probe: another id at that place must read as that id, with the rest unchanged.
    const std::string probeId = parsed.id + "0";
    common::DataBuffer probe;
    probe.append(whole.substr(0, start));
    probe.append(probeId);
    probe.append(whole.substr(end));
    std::unique_ptr<Message> probed;
    try {
        probed = deserializeBayeuxMessage(probe, true);
    } catch (const std::exception&) {
        return;
    }
    if (typeid(*probed) != typeid(ConnectStreamRequest)) {
        return;
    }
    const auto& again = static_cast<const ConnectStreamRequest&>(*probed);
    if (again.id != probeId || again.clientId != parsed.clientId || again.connectionType != parsed.connectionType ||
        again.advice) {
        return;
    }
    // Without escapes, the parse's strings are bytes of the text.
    const std::size_t clientIdAt = whole.find(parsed.clientId);
    const std::size_t typeAt = whole.find(parsed.connectionType);
    if (clientIdAt == std::string_view::npos || typeAt == std::string_view::npos) {
        return;
    }
    if (!kept) {
        kept = std::make_unique<Kept>();
    }
    std::memcpy(kept->text, whole.data(), whole.size());
    kept->size = static_cast<std::uint16_t>(whole.size());
    kept->idStart = static_cast<std::uint16_t>(start);
    kept->idEnd = static_cast<std::uint16_t>(end);
    kept->clientIdAt = static_cast<std::uint16_t>(clientIdAt);
    kept->clientIdSize = static_cast<std::uint16_t>(parsed.clientId.size());
    kept->typeAt = static_cast<std::uint16_t>(typeAt);
    kept->typeSize = static_cast<std::uint16_t>(parsed.connectionType.size());
}

}  // namespace korvane::bayeux
