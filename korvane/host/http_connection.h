#pragma once

// One HTTP/1.1 connection of the host's server. Internal to the server: included
// only by its .cpp files.

#include <memory>

#include "korvane/host/server_websocket_connection.h"

namespace korvane::host {

struct ServerState;

// Serves an accepted socket (over TLS when the state has a TLS context) until the
// peer goes, the connection is upgraded to a WebSocket, or the server stops.
void serveHttpConnection(ConnectionSocket&& socket, const std::shared_ptr<ServerState>& state);

}  // namespace korvane::host
