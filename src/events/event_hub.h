// The event hub: follows the store's change journal and hands every change
// to the event streams that watch it, as the stream's session would read
// it; ends the streams of sessions that end; keeps idle streams alive.
//
// Two threads serve every stream: the follower sleeps until a write of any
// process ends (the store's shared generation), the hub renders and queues
// events.  A stream itself is a socket with a bounded queue in the HTTP
// adapter, never a thread, and nothing here waits for a client.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "auth/session.h"
#include "http/cg_http.h"

// Set by the daemon at start-up (WHTTPD_HTTP_LIMITS).
struct WHttpEventLimits {
    int perSession = 4;       // events_per_session
    int total = 64;           // events_total
    int keepAliveMs = 15000;  // events_keepalive_ms
    int queue = 256;          // events_queue: events a stream's client may fall behind by
    // events_per_address: streams of one client address (its own, not its
    // /64): one device, however many sessions it opens, leaves the others
    // places.
    int perAddress = 16;
};
// The hub's limits (set at start).
const WHttpEventLimits& wHttpEventLimits(void);

// One client's stream: whose session, what it watches, where it resumes.
struct WHttpEventStream {
    WHttpSessionRef owner;
    std::vector<std::string> paths;       // none: everything
    std::optional<uint64_t> resumeAfter;  // Last-Event-ID
    bool resumeUnreadable = false;        // a Last-Event-ID that is no number
    // Where the change journal stood for the request (a read of it then would
    // have shown every change up to here): a new stream starts after it.
    uint64_t openedAt = 0;
    std::shared_ptr<CgHttpStream> out;  // set once the answer's head is out
};

// Starts the hub's threads (once) and hooks it to the session table.
void wHttpEventsStart(const WHttpEventLimits& limits);
// Ends every stream ("end", reason "shutdown"), waits a moment for them to
// go out, and stops the threads.
void wHttpEventsStop(void);

enum class WHttpEventAdmit { Yes, SessionFull, AddressFull, AllFull, Stopped };
// Takes a place for a stream before its answer starts; Yes holds one until
// wHttpEventsOpened or wHttpEventsAbandon.
WHttpEventAdmit wHttpEventsReserve(const std::shared_ptr<WHttpEventStream>& stream);
// The stream's answer is open: the hub starts delivering to it.
void wHttpEventsOpened(const std::shared_ptr<WHttpEventStream>& stream);
// The answer could not be opened: the place is free again.
void wHttpEventsAbandon(const std::shared_ptr<WHttpEventStream>& stream);
// Who judges whether a stream's session still stands: nullptr (the session
// stands) or the reason it ended, and the session's login group now.  The
// session table by default; set before the hub starts (tests).
using WHttpSessionJudge = const char* (*)(const WHttpSessionRef& ref, int* group);
void wHttpEventsSetSessionJudge(WHttpSessionJudge judge);
// A stream's connection closed (the adapter's close callback).
void wHttpEventsClosed(void);
