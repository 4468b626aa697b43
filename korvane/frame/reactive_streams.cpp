#include "korvane/frame/reactive_streams.h"

namespace korvane::reactive_streams {

Subscription::Subscription() = default;
Subscription::~Subscription() = default;
Subscriber::Subscriber() = default;
Subscriber::~Subscriber() = default;
Publisher::Publisher() = default;
Publisher::~Publisher() = default;
Processor::Processor() = default;
Processor::~Processor() = default;

}  // namespace korvane::reactive_streams
