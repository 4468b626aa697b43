#pragma once

// Every public header of the korvane-bayeux library.

#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/data_buffer.h"
#include "korvane/frame/future.h"
#include "korvane/frame/http.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/manual_timer_backend.h"
#include "korvane/frame/message.h"
#include "korvane/frame/metrics.h"
#include "korvane/frame/one_shot_publisher.h"
#include "korvane/frame/random.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/frame/reducing_subscriber.h"
#include "korvane/frame/service.h"
#include "korvane/frame/timer_queue.h"
#include "korvane/frame/timers.h"
#include "korvane/frame/transform_processor.h"
#include "korvane/frame/type_name.h"

#include "korvane/codec/bayeux_service.h"
#include "korvane/codec/channel.h"
#include "korvane/codec/deserialize.h"
#include "korvane/codec/json_reader.h"
#include "korvane/codec/messages.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/codec/serialize.h"

#include "korvane/routing/bayeux_queue.h"
#include "korvane/routing/bayeux_server.h"

#include "korvane/session/local_session.h"
#include "korvane/session/long_poll_session.h"

#include "korvane/service/bayeux_service_provider.h"

#include "korvane/transport/connect_stream_serializer.h"
#include "korvane/transport/http_provider.h"
#include "korvane/transport/long_poll_provider.h"
#include "korvane/transport/websocket_client_provider.h"
#include "korvane/transport/websocket_provider.h"
