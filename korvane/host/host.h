#pragma once

// The reference host: the service registry, the per-request context, the clock
// and timer services (on the server's I/O threads, or on a thread of their own),
// and the HTTP and WebSocket server.

#include "korvane/host/host_context.h"
#include "korvane/host/http_server.h"
#include "korvane/host/loop_timer_backend.h"
#include "korvane/host/service_registry.h"
#include "korvane/host/threaded_timer_backend.h"
