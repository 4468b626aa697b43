#include "korvane/routing/bayeux_counters.h"

#include <vector>

namespace korvane::bayeux {

common::ThreadCounters& bayeuxCounters =
    common::ThreadCounters::process(static_cast<std::size_t>(BayeuxCounter::end), 1);

namespace {

struct CounterFamily {
    BayeuxCounter counter;
    const char* name;
    const char* help;
};

const CounterFamily counterFamilies[] = {
    {BayeuxCounter::handshakes, "korvane_handshakes_total", "Successful handshakes."},
    {BayeuxCounter::disconnects, "korvane_disconnects_total", "Clients that disconnected."},
    {BayeuxCounter::clientsSwept, "korvane_clients_swept_total", "Clients dropped for not calling in time."},
    {BayeuxCounter::clientsDroppedOverPending, "korvane_clients_dropped_pending_total",
     "Clients dropped for letting more messages wait than the pending limit."},
    {BayeuxCounter::shortPolls, "korvane_short_polls_total",
     "Connects answered at once, beyond a browser's limit of held connects."},
    {BayeuxCounter::messagesPublished, "korvane_messages_published_total",
     "Messages fanned out by the routing core, from clients, in-process sessions and other servers."},
    {BayeuxCounter::deliveries, "korvane_deliveries_total", "Messages queued for remote clients."},
};

}  // namespace

void writeBayeuxCounters(common::MetricsWriter& writer) {
    const std::vector<std::uint64_t> totals = bayeuxCounters.totals();
    for (const CounterFamily& family : counterFamilies) {
        writer.single(family.name, "counter", family.help, totals[static_cast<std::size_t>(family.counter)]);
    }
    writer.single("korvane_pending_messages_high_water", "gauge",
                  "The most messages that waited for one client since the start.",
                  totals[static_cast<std::size_t>(BayeuxCounter::end)]);
}

}  // namespace korvane::bayeux
