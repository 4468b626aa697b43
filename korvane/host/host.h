#pragma once

// The reference host: the service registry, the per-request context and the
// threaded clock and timer service.

#include "korvane/host/host_context.h"
#include "korvane/host/service_registry.h"
#include "korvane/host/threaded_timer_backend.h"
