#pragma once

// The reference host: the service registry, the per-request context, the
// threaded clock and timer service, and the HTTP and WebSocket server.

#include "korvane/host/host_context.h"
#include "korvane/host/http_server.h"
#include "korvane/host/service_registry.h"
#include "korvane/host/threaded_timer_backend.h"
