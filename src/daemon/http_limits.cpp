// Limits of the daemon's HTTPS server: see http_limits.h.
#include "daemon/http_limits.h"

#include <sys/resource.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "base/log.h"

namespace {

// Each name sets one field: of the server's limits, or of the event streams'.
struct LimitName {
    const char* name;
    int CgHttpLimits::*intField;
    size_t CgHttpLimits::*sizeField;
    int WHttpEventLimits::*eventField;
};

const LimitName kLimitNames[] = {
    {"connections", &CgHttpLimits::maxConnections, nullptr, nullptr},
    {"per_address", &CgHttpLimits::maxPerAddress, nullptr, nullptr},
    {"handshake_ms", &CgHttpLimits::handshakeTimeoutMs, nullptr, nullptr},
    {"request_ms", &CgHttpLimits::requestTimeoutMs, nullptr, nullptr},
    {"idle_ms", &CgHttpLimits::idleTimeoutMs, nullptr, nullptr},
    {"write_ms", &CgHttpLimits::writeTimeoutMs, nullptr, nullptr},
    {"header_bytes", nullptr, &CgHttpLimits::maxHeaderBytes, nullptr},
    {"body_bytes", nullptr, &CgHttpLimits::maxBodyBytes, nullptr},
    {"io_threads", &CgHttpLimits::ioThreads, nullptr, nullptr},
    {"min_workers", &CgHttpLimits::minWorkers, nullptr, nullptr},
    {"max_workers", &CgHttpLimits::maxWorkers, nullptr, nullptr},
    {"queue", &CgHttpLimits::maxQueuedRequests, nullptr, nullptr},
    {"stack_bytes", nullptr, &CgHttpLimits::threadStackBytes, nullptr},
    {"stream_dead_ms", &CgHttpLimits::streamDeadMs, nullptr, nullptr},
    {"stream_bytes", nullptr, &CgHttpLimits::streamBytes, nullptr},
    {"events_per_session", nullptr, nullptr, &WHttpEventLimits::perSession},
    {"events_total", nullptr, nullptr, &WHttpEventLimits::total},
    {"events_keepalive_ms", nullptr, nullptr, &WHttpEventLimits::keepAliveMs},
    {"events_queue", nullptr, nullptr, &WHttpEventLimits::queue},
    {"events_per_address", nullptr, nullptr, &WHttpEventLimits::perAddress},
};

bool applyOne(const std::string& item, WhttpdLimits& limits, std::string& error) {
    size_t eq = item.find('=');
    std::string name = item.substr(0, eq);
    const char* value = eq == std::string::npos ? "" : item.c_str() + eq + 1;
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(value, &end, 10);
    if (!*value || *end || errno || v <= 0 || v > 1LL << 30) {
        error = "bad value in " + item;
        return false;
    }
    for (const LimitName& l : kLimitNames) {
        if (name != l.name)
            continue;
        if (l.intField)
            limits.http.*l.intField = static_cast<int>(v);
        else if (l.sizeField)
            limits.http.*l.sizeField = static_cast<size_t>(v);
        else
            limits.events.*l.eventField = static_cast<int>(v);
        return true;
    }
    error = "unknown limit " + name;
    return false;
}

// Descriptors: one per connection (a quarter more while evicted ones close)
// and a reserve for the store, the logs and the tools the daemon runs.
void fitDescriptors(CgHttpLimits& limits) {
    constexpr rlim_t kReserve = 128;
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0)
        return;
    rlim_t need = static_cast<rlim_t>(limits.maxConnections) * 5 / 4 + kReserve;
    if (rl.rlim_cur < need) {
        rl.rlim_cur = rl.rlim_max == RLIM_INFINITY || rl.rlim_max >= need ? need : rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
        getrlimit(RLIMIT_NOFILE, &rl);
    }
    if (rl.rlim_cur < need) {
        rlim_t room = rl.rlim_cur > kReserve + 5 ? (rl.rlim_cur - kReserve) * 4 / 5 : 4;
        limits.maxConnections = static_cast<int>(room);
        WLOG(WLOG_NOTICE, WHTTPD_SRC, "connection ceiling lowered to %d (descriptor limit)\n",
             limits.maxConnections);
    }
}

}  // namespace

bool whttpdApplyLimitText(const char* text, WhttpdLimits& limits, std::string& error) {
    std::string rest = text ? text : "";
    while (!rest.empty()) {
        size_t comma = rest.find(',');
        std::string item = rest.substr(0, comma);
        if (!item.empty() && !applyOne(item, limits, error))
            return false;
        rest = comma == std::string::npos ? "" : rest.substr(comma + 1);
    }
    return true;
}

WhttpdLimits whttpdLimits() {
    WhttpdLimits limits;  // the router's defaults (cg_http.h, event_hub.h)
    unsigned cores = std::thread::hardware_concurrency();
    limits.http.ioThreads = cores >= 2 ? 2 : 1;
    std::string error;
    WhttpdLimits changed = limits;
    if (!whttpdApplyLimitText(getenv("WHTTPD_HTTP_LIMITS"), changed, error))
        WLOG(WLOG_ERR, WHTTPD_SRC, "WHTTPD_HTTP_LIMITS ignored: %s\n", error.c_str());
    else
        limits = changed;
    fitDescriptors(limits.http);
    return limits;
}
