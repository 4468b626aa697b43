#pragma once

// One simulated browser: its own connection(s) and cookie jar, a Bayeux session
// that it keeps alive by the server's advice, and one of three roles:
//   - a subscriber holds its rooms and checks every delivery (latency, duplicates,
//     order per publisher), and counts in the rooms' subscriber counts while its
//     subscriptions stand;
//   - a publisher sends to its rooms on a fixed schedule, open loop, whatever the
//     replies, stamping each message with its scheduled time;
//   - a churner repeats handshake, subscribe, one publish, disconnect on a new
//     connection until publishing ends.
//
// Threading: a client lives on one I/O thread's io_context, which that thread alone
// runs; every method and callback runs there. It must be destroyed there too or
// after that thread ended.

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "load/link.h"
#include "load/message_scanner.h"
#include "load/load_stats.h"
#include "load/run_plan.h"

namespace korvane::load {

enum class Transport { webSocket, longPolling };
enum class Role { subscriber, publisher, churner };

struct ClientSetup {
    Role role = Role::subscriber;
    Transport transport = Transport::webSocket;
    std::vector<std::size_t> rooms;
    std::int64_t publisherId = -1;  // publishers and churners
    std::uint32_t seed = 0;
    LinkTarget target;
};

class LoadClient {
public:
    LoadClient(boost::asio::io_context& io, ThreadStats& stats, RunPlan& plan, ClientSetup setup);
    ~LoadClient();
    LoadClient(const LoadClient&) = delete;
    LoadClient& operator=(const LoadClient&) = delete;

    // Handshakes after `delay` (subscribers and publishers; churners wait for publishing).
    void startAfter(std::chrono::microseconds delay);
    // Publishers start their schedule, churners their cycles; the plan's times are set.
    void startPublishing();

    Role role() const { return setup.role; }

private:
    void openLink();
    void handshake();
    void send(std::string message, bool isConnect = false);
    void onBody(std::string_view body);
    void onFailure(const std::string& what);
    void onMeta(std::string_view channel, const MessageFields& message);
    void onHandshakeReply(const MessageFields& message);
    void onSubscribeReply(const MessageFields& message);
    void onConnectReply(const MessageFields& message);
    void onPublishReply(const MessageFields& message);
    void onUnsubscribeReply(const MessageFields& message);
    void onDisconnectReply();
    void onDelivery(const MessageFields& message);
    void subscribeAll();
    void sendConnect();
    void scheduleConnect(std::int64_t afterMillis);
    void loseSession();
    void rehandshakeAfter(std::int64_t millis);
    void publishDue();
    void publish(std::size_t room, std::int64_t stampMicros);
    std::size_t randomRoom();
    std::string nextId();

    boost::asio::io_context& io;
    ThreadStats& stats;
    RunPlan& plan;
    const ClientSetup setup;
    std::unique_ptr<Link> link;
    boost::asio::steady_timer connectTimer;
    boost::asio::steady_timer publishTimer;
    std::minstd_rand random;  // a publisher's room picks: 8 bytes where an mt19937 takes 5 KB a client
    std::string clientId;
    std::string connectTail;  // a connect of this session, from behind its id
    std::vector<bool> subscribed;  // per entry of setup.rooms, counted in the plan
    std::size_t subscribedCount = 0;
    bool up = false;
    bool connectOutstanding = false;
    bool firstConnect = true;
    std::int64_t connectInterval = 0;
    unsigned session = 0;  // bumped by every handshake: timers of an older session do nothing
    std::uint64_t messageId = 0;
    std::int64_t sequence = 0;
    std::int64_t nextSend = 0;
    std::vector<std::int64_t> lastSequence;  // per publisher id, -1 before the first
    std::string publishText;                 // reused to build publishes
};

}  // namespace korvane::load
