// korvane-bayeux: the reference server. A BayeuxHost serving the demo page, with
// every limit a flag, and an in-process session that publishes /server/time.
//
// Threads: main parses flags, starts the host and waits for SIGINT or SIGTERM (both
// blocked before any thread starts, so only sigwait sees them); the host's I/O
// threads do the rest, the timers and the heartbeat among it.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <malloc.h>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "command_line.h"
#include "korvane/bayeux.h"
#ifdef KORVANE_WITH_REDIS
#include "korvane/cluster/channel_sharding.h"
#include "korvane/cluster/redis_bridge.h"
#endif
#include "korvane/host/allow_list_policy.h"
#include "korvane/host/bayeux_host.h"
#include "korvane/host/http_server.h"
#include "korvane/host/token/token_policy.h"

namespace {

using namespace korvane;

namespace fs = std::filesystem;

// One --log-levels setting: a mask for one channel, or for all of them when `channel` is empty.
struct LogLevelSetting {
    std::string channel;
    unsigned levels;
};

// Warnings and failures, but not the long-poll session's warning about a delivered
// message that kept its id: cometd clients put an id on every publish, so that warning
// would be one line per delivery, the bulk of the server's CPU and disk at load.
const std::vector<LogLevelSetting> defaultLogSettings = {
    {"", common::defaultLogLevels},
    {"korvane::bayeux::longPollSession", 512},
};

struct Options {
    host::BayeuxHostOptions host;
    // Applied in order; the first --log-levels flag replaces the default.
    std::vector<LogLevelSetting> logLevels = defaultLogSettings;
    bool logLevelsGiven = false;
    common::LogFormat logFormat = common::LogFormat::text;
    unsigned heartbeatSeconds = 1;
    // Where GET /metrics is served instead of the main listener; empty: there, if loopback.
    std::string metricsListen;
#ifdef KORVANE_WITH_REDIS
    bool clustered = false;
    cluster::RedisBridgeOptions cluster;
#endif
    // Patterns that anonymous clients may subscribe to and publish on; empty: any.
    std::vector<std::string> subscribeAllowed;
    std::vector<std::string> publishAllowed;
    // The key of signed tokens; with one, every client needs a valid token.
    std::string tokenSecretFile;
    std::string tokenPublicKeyFile;
    std::chrono::seconds tokenLeeway{30};
};

using Flag = apps::Flag<Options>;
using apps::parseNumber;

std::string describe(const std::vector<LogLevelSetting>& settings) {
    std::string text;
    for (const LogLevelSetting& setting : settings) {
        text += (text.empty() ? "" : " ") + (setting.channel.empty() ? "" : setting.channel + "=") +
                std::to_string(setting.levels);
    }
    return text;
}

void applyLogLevels(const std::vector<LogLevelSetting>& settings) {
    for (const LogLevelSetting& setting : settings) {
        if (setting.channel.empty()) {
            common::setLogLevels(setting.levels);
        } else {
            common::setLogLevels(setting.channel, setting.levels);
        }
    }
}

template <class Field>
Flag::Setter setNumber(Field host::HttpServerOptions::*field, unsigned long long max) {
    return [field, max](Options& options, const std::string& name, const std::string& value) {
        options.host.http.*field = static_cast<Field>(parseNumber(name, value, max));
    };
}

Flag::Setter setSeconds(std::chrono::milliseconds host::HttpServerOptions::*field, unsigned long long max) {
    return [field, max](Options& options, const std::string& name, const std::string& value) {
        options.host.http.*field = std::chrono::seconds(parseNumber(name, value, max));
    };
}

// A channel path or pattern: "/" and at least one more character, not ending in "/".
const std::string& requirePath(const std::string& name, const std::string& value) {
    if (value.size() < 2 || value[0] != '/' || value.back() == '/') {
        throw std::invalid_argument("invalid value for " + name + ": '" + value + "'");
    }
    return value;
}

// Checked here rather than when the server binds, so that a typo exits as a bad flag.
const std::string& requireListenAddress(const std::string& name, const std::string& value) {
    try {
        host::parseListenAddress(value);
    } catch (const std::invalid_argument&) {
        throw apps::invalidValue(name, value);
    }
    return value;
}

Flag::Setter addPattern(std::vector<std::string> Options::*list) {
    return [list](Options& options, const std::string& name, const std::string& value) {
        (options.*list).push_back(requirePath(name, value));
    };
}

Flag::Setter setText(std::string host::HttpServerOptions::*field) {
    return [field](Options& options, const std::string&, const std::string& value) { options.host.http.*field = value; };
}

#ifdef KORVANE_WITH_REDIS
std::vector<Flag> redisFlags() {
    const auto count = [](auto number) { return std::to_string(number); };
    return {
        {"--redis", "URL", "none, the server runs alone",
         "share channels with other servers through Redis: redis://[:password@]host:port[/db] "
         "(or the password in KORVANE_REDIS_PASSWORD); repeated, channels are spread over the instances, "
         "listed in the same order on every server",
         [](Options& options, const std::string& name, const std::string& value) {
             try {
                 options.cluster.shards.push_back(cluster::parseRedisUrl(value, std::getenv("KORVANE_REDIS_PASSWORD")));
             } catch (const std::invalid_argument& error) {
                 // Not the URL itself: it may hold a password.
                 throw std::invalid_argument(name + ": " + error.what());
             }
             options.clustered = true;
         }},
        {"--redis-prefix", "PREFIX", cluster::RedisBridgeOptions().prefix, "prefix of the Redis channel names",
         [](Options& options, const std::string& name, const std::string& value) {
             if (value.empty()) {
                 throw std::invalid_argument("invalid value for " + name + ": ''");
             }
             options.cluster.prefix = value;
         }},
        {"--redis-buffer", "N", count(cluster::RedisBridgeOptions().bufferSize),
         "messages held for each Redis instance while it is slow or away; more are dropped",
         [](Options& options, const std::string& name, const std::string& value) {
             options.cluster.bufferSize = static_cast<std::size_t>(parseNumber(name, value, 100000000));
         }},
    };
}
#else
// The flags are known, so that a server built without Redis says so rather than "unknown flag".
std::vector<Flag> redisFlags() {
    const Flag::Setter refuse = [](Options&, const std::string& name, const std::string&) {
        throw std::invalid_argument(name + ": this server was built without Redis");
    };
    return {{"--redis", "URL", "", "not in this build (built without Redis)", refuse},
            {"--redis-prefix", "PREFIX", "", "not in this build", refuse},
            {"--redis-buffer", "N", "", "not in this build", refuse}};
}
#endif

std::vector<Flag> flags() {
    const host::HttpServerOptions http;
    const auto count = [](auto number) { return std::to_string(number); };
    const auto seconds = [](std::chrono::milliseconds time) {
        return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(time).count());
    };
    std::vector<Flag> all = {
        {"--listen", "HOST:PORT", http.listen, "address to serve on; [v6]:port, or :port for all interfaces",
         [](Options& options, const std::string& name, const std::string& value) {
             options.host.http.listen = requireListenAddress(name, value);
         }},
        {"--metrics-listen", "HOST:PORT", "none",
         "serve GET /metrics (Prometheus text: clients, connects, messages, bytes, connections, refusals by "
         "limit, the process's CPU, memory and descriptors; no client's identity) on this address, and not on "
         "--listen, which serves them only when it is a loopback address",
         [](Options& options, const std::string& name, const std::string& value) {
             options.metricsListen = requireListenAddress(name, value);
         }},
        {"--path", "PATH", http.bayeuxPath, "the Bayeux endpoint; requests below it are Bayeux too",
         [](Options& options, const std::string& name, const std::string& value) {
             options.host.http.bayeuxPath = requirePath(name, value);
         }},
        {"--threads", "N", "one per usable CPU", "I/O threads", setNumber(&host::HttpServerOptions::threads, 1024)},
        {"--batched-writes", "on|off", "on",
         "a loop's WebSocket writes of one turn go in one io_uring submission, where the kernel allows; "
         "off: a system call each",
         [](Options& options, const std::string& name, const std::string& value) {
             if (value != "on" && value != "off") {
                 throw apps::invalidValue(name, value);
             }
             options.host.http.batchedWrites = value == "on";
         }},
        {"--static", "DIR", "the installed page, share/korvane-bayeux/web", "files served for every other path",
         setText(&host::HttpServerOptions::staticRoot)},
        {"--log-levels", "[CHANNEL=]MASK", describe(defaultLogSettings),
         "log levels: 4 frequent, 8 trace, 16 sessions, 256 warnings, 512 failures; CHANNEL=MASK sets one "
         "channel (repeatable, applied in order; any use replaces the default)",
         [](Options& options, const std::string& name, const std::string& value) {
             if (!options.logLevelsGiven) {
                 options.logLevels.clear();
                 options.logLevelsGiven = true;
             }
             const std::size_t equals = value.rfind('=');
             const std::string channel = equals == std::string::npos ? std::string() : value.substr(0, equals);
             const std::string mask = equals == std::string::npos ? value : value.substr(equals + 1);
             options.logLevels.push_back({channel, static_cast<unsigned>(parseNumber(name, mask, 0xffffffffULL))});
         }},
        {"--log-format", "text|json", "text",
         "one line a record on standard error; json: an object of time (UTC, RFC 3339), level, channel and "
         "message, and then nothing else is written there once the flags are read",
         [](Options& options, const std::string& name, const std::string& value) {
             if (value != "text" && value != "json") {
                 throw apps::invalidValue(name, value);
             }
             options.logFormat = value == "json" ? common::LogFormat::json : common::LogFormat::text;
         }},
        {"--max-body", "BYTES", count(http.maxBodyBytes), "largest request body (413 beyond)",
         setNumber(&host::HttpServerOptions::maxBodyBytes, 1ULL << 32)},
        {"--max-header", "BYTES", count(http.maxHeaderBytes), "largest request header (431 beyond)",
         setNumber(&host::HttpServerOptions::maxHeaderBytes, 1ULL << 20)},
        {"--max-ws-message", "BYTES", count(http.maxWsMessageBytes), "largest WebSocket message (close 1009 beyond)",
         setNumber(&host::HttpServerOptions::maxWsMessageBytes, 1ULL << 32)},
        {"--header-timeout", "SECONDS", seconds(http.headerTimeout), "time allowed to send a request's header",
         setSeconds(&host::HttpServerOptions::headerTimeout, 3600)},
        {"--ws-idle", "SECONDS", seconds(http.wsIdle), "a silent WebSocket peer is dropped after this",
         setSeconds(&host::HttpServerOptions::wsIdle, 86400)},
        {"--ws-backlog", "BYTES", count(http.wsBacklogBytes),
         "frames waiting for a WebSocket peer that reads too slowly; beyond this it is cut",
         setNumber(&host::HttpServerOptions::wsBacklogBytes, 1ULL << 40)},
        {"--write-timeout", "SECONDS", seconds(http.writeTimeout),
         "a socket write taking longer cuts its connection (0: never)",
         setSeconds(&host::HttpServerOptions::writeTimeout, 86400)},
        {"--max-connections", "N", count(http.maxConnections), "open connections beyond this are refused",
         setNumber(&host::HttpServerOptions::maxConnections, 10000000)},
        {"--max-pending", "N", count(host::BayeuxHostOptions().maxPendingMessages),
         "messages waiting for one client; beyond this it is dropped and must handshake again (0: no limit)",
         [](Options& options, const std::string& name, const std::string& value) {
             options.host.maxPendingMessages = static_cast<std::size_t>(parseNumber(name, value, 1ULL << 32));
         }},
        {"--max-pending-bytes", "BYTES", count(host::BayeuxHostOptions().maxPendingBytes),
         "bytes of the messages waiting for one client (channel and data); beyond this it is dropped as "
         "past --max-pending (0: no limit)",
         [](Options& options, const std::string& name, const std::string& value) {
             options.host.maxPendingBytes = static_cast<std::size_t>(parseNumber(name, value, 1ULL << 40));
         }},
        {"--subscribe-allow", "PATTERN", "any channel",
         "clients may subscribe only within these patterns (/* one segment, /** any depth; repeatable)",
         addPattern(&Options::subscribeAllowed)},
        {"--publish-allow", "PATTERN", "any channel",
         "clients may publish only on channels these patterns match (/* one segment, /** any depth; repeatable)",
         addPattern(&Options::publishAllowed)},
        {"--token-hmac-secret-file", "FILE", "none",
         "clients need a token signed HS256 with the secret in FILE (32 bytes or more; a final line break is "
         "not part of it)",
         [](Options& options, const std::string&, const std::string& value) { options.tokenSecretFile = value; }},
        {"--token-public-key", "FILE", "none",
         "clients need a token signed RS256 or ES256, as the PEM public key in FILE is RSA or EC P-256",
         [](Options& options, const std::string&, const std::string& value) { options.tokenPublicKeyFile = value; }},
        {"--token-leeway", "SECONDS", "30", "a token's exp may be this far past",
         [](Options& options, const std::string& name, const std::string& value) {
             options.tokenLeeway = std::chrono::seconds(parseNumber(name, value, 3600));
         }},
        {"--allow-origin", "ORIGIN", "none", "a cross-origin site allowed to use the Bayeux path (repeatable)",
         [](Options& options, const std::string&, const std::string& value) {
             options.host.http.allowOrigins.push_back(value);
         }},
        {"--tls-cert", "FILE", "none", "PEM certificate chain: serve HTTPS and WSS (with --tls-key)",
         setText(&host::HttpServerOptions::tlsCert)},
        {"--tls-key", "FILE", "none", "PEM private key for --tls-cert", setText(&host::HttpServerOptions::tlsKey)},
        {"--ca-file", "FILE", "system store only", "extra CA certificates trusted by outbound wss:// connections",
         [](Options& options, const std::string&, const std::string& value) {
             options.host.client.extraCaFile = value;
         }},
        {"--heartbeat", "SECONDS", "1", "period of the /server/time message; 0 turns it off",
         [](Options& options, const std::string& name, const std::string& value) {
             options.heartbeatSeconds = static_cast<unsigned>(parseNumber(name, value, 86400));
         }},
    };
    for (Flag& flag : redisFlags()) {
        all.push_back(std::move(flag));
    }
    return all;
}

// Tokens decide everything when a key is given; the allow lists bind anonymous clients,
// of which there are none then, so the two do not go together.
std::shared_ptr<bayeux::BayeuxPolicy> makePolicy(const Options& options) {
    const bool listed = !options.subscribeAllowed.empty() || !options.publishAllowed.empty();
    if (!options.tokenSecretFile.empty() && !options.tokenPublicKeyFile.empty()) {
        throw std::invalid_argument("--token-hmac-secret-file and --token-public-key exclude each other");
    }
    if (options.tokenSecretFile.empty() && options.tokenPublicKeyFile.empty()) {
        return listed ? std::make_shared<host::AllowListPolicy>(options.subscribeAllowed, options.publishAllowed)
                      : nullptr;
    }
    if (listed) {
        throw std::invalid_argument("with tokens, their claims decide: --subscribe-allow and --publish-allow do not apply");
    }
    return std::make_shared<host::TokenPolicy>(
        options.tokenSecretFile.empty()
            ? host::TokenVerifier::publicKeyFromFile(options.tokenPublicKeyFile, options.tokenLeeway)
            : host::TokenVerifier::hmacFromFile(options.tokenSecretFile, options.tokenLeeway));
}

const char* const synopsis =
    "usage: korvane-bayeux [FLAG VALUE]...\n"
    "A bad flag or value exits with status 2 and a line naming the flag.\n";

// The folder of the page and its client library, found from the server's own location:
// KORVANE_DATA_FROM_BINDIR from it once installed, share/korvane-bayeux beside it in the
// build tree. Never the source tree, which an installed server may not have.
fs::path bundledDataFolder() {
    std::error_code error;
    const fs::path serverFolder = fs::read_symlink("/proc/self/exe", error).parent_path();
    const fs::path installed = (serverFolder / KORVANE_DATA_FROM_BINDIR).lexically_normal();
    const fs::path beside = serverFolder / "share" / "korvane-bayeux";
    return fs::is_directory(installed, error) || !fs::is_directory(beside, error) ? installed : beside;
}

Options parseOptions(int argc, char** argv) {
    Options options;
    const fs::path data = bundledDataFolder();
    options.host.http.staticRoot = (data / "web").string();
    options.host.http.staticMounts.emplace_back("/vendor/cometd", (data / "cometd").string());
    apps::applyFlags(argc, argv, synopsis, flags(), options);
    if (options.host.http.tlsCert.empty() != options.host.http.tlsKey.empty()) {
        throw std::invalid_argument("--tls-cert and --tls-key go together");
    }
    options.host.policy = makePolicy(options);
    return options;
}

// Publishes the wall-clock time every period from an in-process session.
class Heartbeat {
public:
    Heartbeat(host::BayeuxHost& host, unsigned seconds) : session(host.makeLocalSession()) {
        std::weak_ptr<bayeux::LocalBayeuxSession> weakSession = session;
        timer = common::periodic(
            [weakSession](long long) {
                if (auto publisher = weakSession.lock()) {
                    publisher->publish(makeTimeMessage());
                }
            },
            static_cast<long long>(seconds) * 1000 / common::tickMilliseconds);
    }

private:
    static std::unique_ptr<bayeux::PublishRequest> makeTimeMessage() {
        const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count();
        auto message = std::make_unique<bayeux::PublishRequest>("/server/time");
        message->data = std::make_shared<common::DataBuffer>("{\"time\":" + std::to_string(now) + "}");
        return message;
    }

    std::shared_ptr<bayeux::LocalBayeuxSession> session;
    common::TimerHandle timer;
};

// Why the server is not ready, for GET /readyz: it is while it serves with every service
// started and, when clustered, while the bridge hears Redis.
// Threading: any thread; the mutex is taken by each probe and by main at each change.
class Readiness {
public:
    // Both empty when the server runs alone.
    void serving(std::function<bool()> bridgeConnected, std::function<void(common::MetricsWriter&)> bridgeMetrics) {
        std::lock_guard<std::mutex> guard(mutex);
        phase = Phase::serving;
        bridgeHearsRedis = std::move(bridgeConnected);
        writeBridge = std::move(bridgeMetrics);
    }
    // Called before the bridge goes away.
    void stopping() {
        std::lock_guard<std::mutex> guard(mutex);
        phase = Phase::stopping;
        bridgeHearsRedis = nullptr;
        writeBridge = nullptr;
    }
    std::string notReadyReason() const {
        std::lock_guard<std::mutex> guard(mutex);
        switch (phase) {
        case Phase::starting:
            return "starting";
        case Phase::stopping:
            return "stopping";
        case Phase::serving:
            break;
        }
        return bridgeHearsRedis && !bridgeHearsRedis() ? "not connected to Redis" : "";
    }
    // The bridge's families for GET /metrics, while it is there: the lock keeps it from going
    // away under a scrape.
    void writeBridgeMetrics(common::MetricsWriter& writer) const {
        std::lock_guard<std::mutex> guard(mutex);
        if (writeBridge) {
            writeBridge(writer);
        }
    }

private:
    enum class Phase { starting, serving, stopping };
    mutable std::mutex mutex;
    Phase phase = Phase::starting;
    std::function<bool()> bridgeHearsRedis;
    std::function<void(common::MetricsWriter&)> writeBridge;
};

// glibc caches up to seven freed blocks of each small size in every thread, out of
// malloc_trim's reach. Once a burst is freed, the blocks left in those caches lie
// scattered through its pages and keep each one resident: 1.9 MB of a 14-MB server after
// a swept flood of 100,000 handshakes, 13 to 17.5% above its start. Three blocks per size
// leave that flood 7 to 7.4% above its start (one block: 2.6 to 4%) and keep the cache's
// speed on the delivery path, which frees several blocks of one size in a row: a
// WebSocket connect cycle runs 2.8% more instructions with one block than with three.
// glibc reads the setting only from the environment at process start, so the server
// starts itself again with it, once (the pid stays), unless the environment already
// chooses a tcache_count.
void limitPerThreadMallocCache(char** argv) {
    constexpr const char* setting = "glibc.malloc.tcache_count";
    const char* tunables = std::getenv("GLIBC_TUNABLES");
    if (tunables != nullptr && std::strstr(tunables, setting) != nullptr) {
        return;
    }
    std::string wanted = std::string(setting) + "=3";
    if (tunables != nullptr && *tunables != '\0') {
        wanted = std::string(tunables) + ":" + wanted;
    }
    setenv("GLIBC_TUNABLES", wanted.c_str(), 1);
    execv("/proc/self/exe", argv);
    // Without /proc the server runs on with glibc's default cache.
}

// glibc keeps what a burst freed (the frames of a cut slow peer, a swept flood of
// sessions) in its arenas for good; handing the free pages back every few seconds lets
// the server's RSS fall again once the burst is over.
//
// malloc_trim frees whole pages inside free chunks of every arena, but the top chunk
// only of the main arena: the I/O threads' arenas give theirs back when a free leaves
// it above the trim threshold. glibc raises that threshold to twice the largest block
// it has unmapped (up to 64 MiB), so after one large buffer, a thread's arena kept a
// swept flood's memory (7 MB of a 14-MB server). Fixing the threshold at glibc's own
// default (unless MALLOC_TRIM_THRESHOLD_ asks for another) stops that climb.
void keepTrimThresholdFixed() {
    constexpr int defaultTrimThreshold = 128 * 1024;
    if (std::getenv("MALLOC_TRIM_THRESHOLD_") == nullptr) {
        mallopt(M_TRIM_THRESHOLD, defaultTrimThreshold);
    }
}

common::TimerHandle returnFreedMemoryPeriodically() {
    constexpr long long everyTicks = 10 * 1000 / common::tickMilliseconds;
    return common::periodic([](long long) { malloc_trim(0); }, everyTicks);
}

// A listener of its own for GET /metrics, /healthz and /readyz, with no Bayeux path and no files.
std::unique_ptr<host::HttpServer> startMetricsListener(const std::string& listen, const host::BayeuxHost& server,
                                                       std::function<std::string()> notReadyReason) {
    host::HttpServerOptions options;
    options.listen = listen;
    options.bayeuxPath.clear();
    options.threads = 1;
    options.metrics = server.metrics();
    options.exposeMetrics = host::HttpServerOptions::MetricsExposure::always;
    options.notReadyReason = std::move(notReadyReason);
    auto listener = std::make_unique<host::HttpServer>(std::move(options), std::make_shared<host::ServiceRegistry>());
    listener->start();
    return listener;
}

#ifdef KORVANE_WITH_REDIS
// What the Redis bridge did over the server's life, for an operator and for bench/cluster-scale.mjs.
void printBridgeTotals(const cluster::RedisBridgeStats& stats) {
    std::cout << "korvane-bayeux: Redis: " << stats.shardsUp << "/" << stats.shards << " shards up, "
              << stats.messagesOut << " messages out, " << stats.messagesIn << " in, " << stats.dropped
              << " dropped, " << stats.reconnects << " reconnects, lag " << stats.lagMicros << " us" << std::endl;
}

void writeBridgeMetrics(const cluster::RedisBridge& bridge, common::MetricsWriter& writer) {
    const cluster::RedisBridgeStats stats = bridge.stats();
    writer.single("korvane_redis_up", "gauge", "Redis shards whose subscriber is connected now.",
                  std::uint64_t{stats.shardsUp});
    writer.single("korvane_redis_shards", "gauge", "Redis shards configured.", std::uint64_t{stats.shards});
    writer.single("korvane_redis_messages_out_total", "counter", "Messages published to Redis.", stats.messagesOut);
    writer.single("korvane_redis_messages_in_total", "counter", "Messages received from Redis.", stats.messagesIn);
    writer.single("korvane_redis_dropped_total", "counter", "Messages dropped by a full buffer while a shard was away.",
                  stats.dropped);
    writer.single("korvane_redis_reconnects_total", "counter", "Connections to Redis made again after a failure.",
                  stats.reconnects);
    writer.family("korvane_redis_lag_seconds", "gauge",
                  "Round trip of the last probe on the slowest shard's subscriber connection.");
    writer.sample("korvane_redis_lag_seconds", static_cast<double>(stats.lagMicros) / 1e6);
}
#endif

int waitForStopSignal(const sigset_t& signals) {
    int received = 0;
    sigwait(&signals, &received);
    return received;
}

}  // namespace

int main(int argc, char** argv) {
    limitPerThreadMallocCache(argv);
    Options options;
    try {
        options = parseOptions(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "korvane-bayeux: " << error.what() << " (see --help)\n";
        return 2;
    }
#ifdef KORVANE_WITH_REDIS
    if (options.clustered) {
        try {
            cluster::checkShardList(options.cluster);
        } catch (const std::invalid_argument& error) {
            std::cerr << "korvane-bayeux: " << error.what() << "\n";
            return 2;
        }
    }
#endif

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    keepTrimThresholdFixed();
    common::installStderrLogSink(options.logFormat);
    applyLogLevels(options.logLevels);

    const common::LogFormat logFormat = options.logFormat;
    const std::string bayeuxPath = options.host.http.bayeuxPath;
    const auto readiness = std::make_shared<Readiness>();
    const std::function<std::string()> notReadyReason = [readiness] { return readiness->notReadyReason(); };
    options.host.http.notReadyReason = notReadyReason;
    if (!options.metricsListen.empty()) {
        options.host.http.exposeMetrics = host::HttpServerOptions::MetricsExposure::never;
    }
    try {
        host::BayeuxHost server(std::move(options.host));
        server.metrics()->add([readiness](common::MetricsWriter& writer) { readiness->writeBridgeMetrics(writer); });
        server.start();
        std::unique_ptr<host::HttpServer> metricsListener;
        if (!options.metricsListen.empty()) {
            metricsListener = startMetricsListener(options.metricsListen, server, notReadyReason);
        }
        common::TimerHandle memoryTrim = returnFreedMemoryPeriodically();
        std::unique_ptr<Heartbeat> heartbeat;
        if (options.heartbeatSeconds != 0) {
            heartbeat = std::make_unique<Heartbeat>(server, options.heartbeatSeconds);
        }
#ifdef KORVANE_WITH_REDIS
        std::unique_ptr<cluster::RedisBridge> bridge;
        if (options.clustered) {
            bridge = std::make_unique<cluster::RedisBridge>(server.makeLocalSession(), server.routing(), options.cluster);
            const cluster::RedisBridge* shared = bridge.get();
            readiness->serving([shared] { return shared->isConnected(); },
                               [shared](common::MetricsWriter& writer) { writeBridgeMetrics(*shared, writer); });
        } else {
            readiness->serving(nullptr, nullptr);
        }
#else
        readiness->serving(nullptr, nullptr);
#endif
        std::cout << "korvane-bayeux: serving " << server.url() << " (Bayeux endpoint " << bayeuxPath
                  << ", Ctrl-C stops)" << std::endl;
        if (metricsListener) {
            std::cout << "korvane-bayeux: metrics at " << metricsListener->url() << "metrics" << std::endl;
        }
#ifdef KORVANE_WITH_REDIS
        if (bridge) {
            std::cout << "korvane-bayeux: sharing channels through Redis at "
                      << cluster::shardListText(options.cluster.shards) << std::endl;
        }
#endif
        waitForStopSignal(signals);
        readiness->stopping();
        metricsListener.reset();
#ifdef KORVANE_WITH_REDIS
        if (bridge) {
            printBridgeTotals(bridge->stats());
        }
        bridge.reset();
#endif
        heartbeat.reset();
        memoryTrim.reset();
        server.stop();
    } catch (const std::exception& error) {
        if (logFormat == common::LogFormat::json) {
            std::cerr << common::jsonLogLine(common::logFailure, "korvane-bayeux", error.what()) << "\n";
        } else {
            std::cerr << "korvane-bayeux: " << error.what() << "\n";
        }
        return 1;
    }
    std::cout << "korvane-bayeux: stopped" << std::endl;
    return 0;
}
