#include "korvane/frame/service.h"

#include "korvane/frame/spare_buckets.h"

namespace korvane {

Message::Message() = default;
Message::~Message() = default;
const std::type_info* Message::serviceMessageType() const noexcept { return nullptr; }

namespace common {

Lifecycle::Lifecycle() = default;
Lifecycle::~Lifecycle() = default;
void Lifecycle::onStart() {}
void Lifecycle::onStop() {}

void Lifecycle::start() {
    running.store(true);
    onStart();
}

void Lifecycle::stop() {
    running.store(false);
    onStop();
}

ContextState::ContextState() = default;
ContextState::~ContextState() = default;

bool ContextState::has(const std::string& key) const {
    std::lock_guard<std::mutex> guard(mutex);
    return properties.count(key) != 0;
}

boost::any ContextState::get(const std::string& key) const {
    std::lock_guard<std::mutex> guard(mutex);
    auto found = properties.find(key);
    return found == properties.end() ? boost::any() : found->second;
}

std::string ContextState::getString(const std::string& key) const {
    std::lock_guard<std::mutex> guard(mutex);
    auto found = properties.find(key);
    return found == properties.end() ? std::string() : boost::any_cast<const std::string&>(found->second);
}

bool ContextState::isString(const std::string& key, const std::string& value) const {
    std::lock_guard<std::mutex> guard(mutex);
    auto found = properties.find(key);
    return found == properties.end() ? value.empty() : boost::any_cast<const std::string&>(found->second) == value;
}

void ContextState::set(const std::string& key, boost::any value) {
    std::lock_guard<std::mutex> guard(mutex);
    startSmall(properties);
    properties[key] = std::move(value);
    changes.fetch_add(1, std::memory_order_release);
}

}  // namespace common

Context::Context() = default;
Context::~Context() = default;
ServiceProvider::ServiceProvider() = default;
ServiceProvider::~ServiceProvider() = default;

}  // namespace korvane
