// The event hub: see event_hub.h.
//
// The hub thread runs in cycles: it takes what was noted since the last
// cycle (the journal moved, streams opened or closed, sessions ended), reads
// the new journal entries, renders each once per login group that watches
// it, queues the frames, starts the new streams from where they resume, ends
// the streams of ended sessions, and sends keep-alives.  Rendering and
// queueing happen without the hub's lock, which only guards the notes and
// the list of streams; the session-end hook and the adapter's close
// callback take nothing but that lock.
#include "rest/events/event_hub.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "auth/login_auth.h"
#include "datamodel/ext_objects.h"
#include "auth/session_events.h"
#include "platform/log.h"
#include "platform/platform.h"
#include "platform/store/journal_reader.h"
#include "platform/store/store.h"
#include "platform/store/wcfg.h"
#include "rest/events/event_render.h"
#include "rest/events/event_text.h"

namespace {

using Clock = std::chrono::steady_clock;

// Journal entries read per query.
constexpr int kJournalBatch = 512;

// A stream as the hub keeps it.  The flags are read by request threads
// (admission) while the hub thread sets them; the rest is the hub thread's.
struct Entry {
    std::shared_ptr<WHttpEventStream> s;
    uint64_t from = 0;                // entries after this one are its own
    std::atomic<bool> ready{false};   // its answer is open
    std::atomic<bool> started{false}; // its backlog is out: it follows the journal
    std::atomic<bool> ended{false};   // "end" queued (or its connection gone)
    Clock::time_point lastWrite = Clock::now();
};
using EntryPtr = std::shared_ptr<Entry>;

struct Ending {
    std::string sessionID, user, reason;
};

bool endingCovers(const Ending& e, const WHttpSessionRef& owner) {
    return e.sessionID.empty() ? e.user == owner.user : e.sessionID == owner.sessionID;
}

class Hub {
  public:
    void start(const WHttpEventLimits& limits);
    void stop();
    WHttpEventAdmit reserve(const std::shared_ptr<WHttpEventStream>& s);
    void opened(const std::shared_ptr<WHttpEventStream>& s);
    void abandon(const std::shared_ptr<WHttpEventStream>& s);
    void poke();
    void sessionEnded(const char* sessionID, const char* user, const char* reason);

  private:
    struct Work {
        std::vector<EntryPtr> streams;
        std::vector<Ending> endings;
        bool moved = false;
        bool stopping = false;
    };

    void follow();
    void run();
    Work waitForWork();
    Clock::time_point nextKeepAlive() const;
    bool readJournal(uint64_t after, std::vector<wcfg::JournalEntry>& out,
                     uint64_t* oldest = nullptr, uint64_t* latest = nullptr);
    bool readNew(std::vector<wcfg::JournalEntry>& entries);
    void resyncAll(const std::vector<EntryPtr>& streams, const char* reason);
    void deliver(const std::vector<wcfg::JournalEntry>& entries, const std::vector<EntryPtr>& to,
                 bool live);
    std::string frameFor(const wcfg::JournalEntry& j, int group, bool live);
    void startStream(const EntryPtr& e);
    void endStreams(const Work& w);
    void keepAlive(const std::vector<EntryPtr>& streams);
    void shutdownStreams();
    void send(Entry& e, uint64_t id, const std::string& frame);
    void end(Entry& e, const char* reason);
    void prune();
    bool endingNoted(const WHttpSessionRef& owner);

    WHttpEventLimits limits_;
    std::mutex m_;
    std::condition_variable cv_;
    std::vector<EntryPtr> streams_;
    std::vector<Ending> endings_;
    bool moved_ = true, poked_ = false, stopping_ = false, started_ = false;
    bool followerStop_ = false, followerDone_ = false;
    uint64_t seq_ = 0;  // the last journal entry read; written by the hub under m_
    std::thread hub_, follower_;
    wcfg::JournalReader journal_;  // the hub thread's
    // What the live streams were last told of each computed view, per group.
    std::map<std::pair<std::string, int>, std::string> lastView_;
};

Hub& hub() {
    static Hub* const h = new Hub;  // never destroyed: callbacks may come late
    return *h;
}

void onSessionEnded(const char* sessionID, const char* user, const char* reason) {
    hub().sessionEnded(sessionID, user, reason);
}

// ---------------------------------------------------------------------------
// Start, stop and the notes other threads leave.

void Hub::start(const WHttpEventLimits& limits) {
    std::lock_guard<std::mutex> lock(m_);
    if (started_)
        return;
    started_ = true;
    limits_ = limits;
    uint64_t oldest = 0;
    journal_.bounds(oldest, seq_);
    wHttpSetSessionEndHook(onSessionEnded);
    hub_ = std::thread([this] { run(); });
    follower_ = std::thread([this] { follow(); });
}

void Hub::stop() {
    {
        std::lock_guard<std::mutex> lock(m_);
        if (!started_ || stopping_)
            return;
        stopping_ = true;
    }
    cv_.notify_all();
    hub_.join();
    // The follower sleeps in the store's wait: woken until it has seen the
    // flag (a wake just before it sleeps again would be missed).
    std::unique_lock<std::mutex> lock(m_);
    followerStop_ = true;
    while (!followerDone_) {
        wcfg::Store::instance().wakeFollowers();
        cv_.wait_for(lock, std::chrono::milliseconds(10));
    }
    lock.unlock();
    follower_.join();
}

WHttpEventAdmit Hub::reserve(const std::shared_ptr<WHttpEventStream>& s) {
    std::lock_guard<std::mutex> lock(m_);
    if (!started_ || stopping_)
        return WHttpEventAdmit::Stopped;
    int all = 0, mine = 0;
    for (const EntryPtr& e : streams_) {
        if (e->ended || (e->ready && cg_http_stream_closed(e->s->out.get())))
            continue;
        ++all;
        mine += e->s->owner.sessionID == s->owner.sessionID;
    }
    if (mine >= limits_.perSession)
        return WHttpEventAdmit::SessionFull;
    if (all >= limits_.total)
        return WHttpEventAdmit::AllFull;
    auto e = std::make_shared<Entry>();
    e->s = s;
    e->from = seq_;
    streams_.push_back(std::move(e));
    return WHttpEventAdmit::Yes;
}

void Hub::opened(const std::shared_ptr<WHttpEventStream>& s) {
    {
        std::lock_guard<std::mutex> lock(m_);
        for (EntryPtr& e : streams_)
            if (e->s == s)
                e->ready = true;
        poked_ = true;
    }
    cv_.notify_all();
}

void Hub::abandon(const std::shared_ptr<WHttpEventStream>& s) {
    std::lock_guard<std::mutex> lock(m_);
    std::erase_if(streams_, [&](const EntryPtr& e) { return e->s == s; });
}

void Hub::poke() {
    {
        std::lock_guard<std::mutex> lock(m_);
        poked_ = true;
    }
    cv_.notify_all();
}

void Hub::sessionEnded(const char* sessionID, const char* user, const char* reason) {
    {
        std::lock_guard<std::mutex> lock(m_);
        if (!started_)
            return;
        endings_.push_back({sessionID, user, reason});
    }
    cv_.notify_all();
}

// The follower: wakes when a write of any process ends.
void Hub::follow() {
    platformBlockStopSignals();
    wcfg::Store& store = wcfg::Store::instance();
    uint32_t seen = store.writeGeneration();
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_);
            if (followerStop_) {
                followerDone_ = true;
                break;
            }
        }
        store.waitForWrite(seen, 10000);
        uint32_t now = store.writeGeneration();
        if (now == seen)
            continue;
        seen = now;
        {
            std::lock_guard<std::mutex> lock(m_);
            moved_ = true;
        }
        cv_.notify_all();
    }
    cv_.notify_all();
}

// ---------------------------------------------------------------------------
// The hub's cycle.

Clock::time_point Hub::nextKeepAlive() const {
    Clock::time_point next = Clock::time_point::max();
    for (const EntryPtr& e : streams_)
        if (e->started && !e->ended)
            next = std::min(next, e->lastWrite + std::chrono::milliseconds(limits_.keepAliveMs));
    return next;
}

Hub::Work Hub::waitForWork() {
    std::unique_lock<std::mutex> lock(m_);
    auto due = [&] { return Clock::now() >= nextKeepAlive(); };
    auto noted = [&] { return moved_ || poked_ || !endings_.empty() || stopping_; };
    while (!noted() && !due()) {
        Clock::time_point next = nextKeepAlive();
        if (next == Clock::time_point::max())
            cv_.wait(lock);
        else
            cv_.wait_until(lock, next);
    }
    Work w;
    w.moved = moved_;
    w.stopping = stopping_;
    w.streams = streams_;
    w.endings.swap(endings_);
    moved_ = poked_ = false;
    return w;
}

void Hub::run() {
    platformBlockStopSignals();
    // The hub reads what the configuration holds and never waits for a
    // service of the device: a silent one would hold up every stream.
    wHttpSetReadsAskServices(false);
    for (;;) {
        Work w = waitForWork();
        if (w.stopping)
            return shutdownStreams();
        std::vector<wcfg::JournalEntry> entries;
        bool lost = w.moved && !readNew(entries);
        // A session that ended before these entries were written hears none
        // of them: the ends noted by now and the session checks come first
        // (the accounts are read after the journal, so they are as new).
        {
            std::lock_guard<std::mutex> lock(m_);
            for (Ending& x : endings_)
                w.endings.push_back(std::move(x));
            endings_.clear();
        }
        endStreams(w);
        std::vector<EntryPtr> live;
        for (const EntryPtr& e : w.streams)
            if (e->started && !e->ended)
                live.push_back(e);
        if (lost)
            resyncAll(live, "events lost");
        deliver(entries, live, true);
        for (const EntryPtr& e : w.streams)
            if (e->ready && !e->started && !e->ended)
                startStream(e);
        keepAlive(w.streams);
        prune();
    }
}

// The entries written since the last read, and the new last number; false
// when entries were trimmed before the hub read them (the hub fell behind by
// more than the journal keeps).
bool Hub::readNew(std::vector<wcfg::JournalEntry>& entries) {
    uint64_t after;
    {
        std::lock_guard<std::mutex> lock(m_);
        after = seq_;
    }
    uint64_t oldest = 0, latest = 0;
    if (!readJournal(after, entries, &oldest, &latest))
        return true;
    uint64_t last = entries.empty() ? std::max(after, latest) : entries.back().seq;
    {
        std::lock_guard<std::mutex> lock(m_);
        seq_ = last;
    }
    return !(latest > after && oldest > after + 1);
}

void Hub::resyncAll(const std::vector<EntryPtr>& streams, const char* reason) {
    uint64_t id;
    {
        std::lock_guard<std::mutex> lock(m_);
        id = seq_;
    }
    std::string frame = wHttpEventFrame(id, "resync", wHttpEventReasonData(reason));
    for (const EntryPtr& e : streams)
        send(*e, id, frame);
}

// Every entry after `after` there is now; the journal's bounds as of the
// first read.
bool Hub::readJournal(uint64_t after, std::vector<wcfg::JournalEntry>& out, uint64_t* oldest,
                      uint64_t* latest) {
    for (bool first = true;; first = false) {
        size_t had = out.size();
        if (!journal_.since(after, kJournalBatch, out, first ? oldest : nullptr,
                            first ? latest : nullptr)) {
            WLOG(WLOG_ERR, WHTTPD_SRC, "event hub: the change journal cannot be read\n");
            return false;
        }
        if (out.size() - had < static_cast<size_t>(kJournalBatch))
            return true;
        after = out.back().seq;
    }
}

const char* eventName(wcfg::JournalKind kind) {
    switch (kind) {
        case wcfg::JournalKind::Add:
            return "add";
        case wcfg::JournalKind::Delete:
            return "delete";
        default:
            return "change";
    }
}

// Each entry once for each login group that watches it: the object is read
// as that group would read it.
void Hub::deliver(const std::vector<wcfg::JournalEntry>& entries, const std::vector<EntryPtr>& to,
                  bool live) {
    for (const wcfg::JournalEntry& j : entries) {
        if (j.kind == wcfg::JournalKind::Reset) {
            std::string frame =
                wHttpEventFrame(j.seq, "resync", wHttpEventReasonData("configuration reset"));
            for (const EntryPtr& e : to)
                if (j.seq > e->from)
                    send(*e, j.seq, frame);
            continue;
        }
        std::map<int, std::string> byGroup;  // frame per group; "" unreadable
        for (const EntryPtr& e : to) {
            if (j.seq <= e->from || e->ended || !wHttpPathWatched(e->s->paths, j.path))
                continue;
            int group = e->s->owner.group;
            auto it = byGroup.find(group);
            if (it == byGroup.end())
                it = byGroup.emplace(group, frameFor(j, group, live)).first;
            if (!it->second.empty())
                send(*e, j.seq, it->second);
        }
    }
}

// The frame of an entry for a login group: "" when the group cannot read
// the object now.  A computed view is recorded whenever it is written, also
// when that changes nothing it shows: the live streams hear of it only when
// it reads differently from what they were last told.
std::string Hub::frameFor(const wcfg::JournalEntry& j, int group, bool live) {
    if (j.kind == wcfg::JournalKind::Delete)
        return wHttpEventFrame(j.seq, "delete", wHttpEventPathData(j.path));
    std::string data = wHttpEventObjectData(j.path, group);
    if (data.empty())
        return "";
    objIndex_t iid;
    if (live && j.kind == wcfg::JournalKind::Change && wcfgFeObjNameToObjId(j.path.c_str(), &iid) < 0) {
        std::string& last = lastView_[{j.path, group}];
        if (last == data)
            return "";
        last = data;
    }
    return wHttpEventFrame(j.seq, eventName(j.kind), data);
}

// A new stream: the entries it resumes after, or a resync when they are no
// longer kept; then it follows the journal with the others.
void Hub::startStream(const EntryPtr& e) {
    uint64_t now;
    {
        std::lock_guard<std::mutex> lock(m_);
        now = seq_;
    }
    const WHttpEventStream& s = *e->s;
    bool resuming = s.resumeAfter || s.resumeUnreadable;
    if (resuming)
        e->from = s.resumeUnreadable ? now : *s.resumeAfter;
    // The backlog and the journal's bounds in one read: entries trimmed in
    // between would otherwise go missing unnoticed.
    std::vector<wcfg::JournalEntry> backlog;
    uint64_t oldest = 0, latest = 0;
    bool read = readJournal(std::min(e->from, now), backlog, &oldest, &latest);
    bool kept = read && !s.resumeUnreadable && e->from + 1 >= oldest && e->from <= latest;
    if (resuming && !kept) {
        e->from = now;
        backlog.clear();
        send(*e, now, wHttpEventFrame(now, "resync", wHttpEventReasonData("events lost")));
    }
    std::erase_if(backlog, [&](const wcfg::JournalEntry& j) { return j.seq > now; });
    deliver(backlog, {e}, false);
    e->from = std::max(e->from, now);
    e->started = true;
    e->lastWrite = Clock::now();
}

void Hub::send(Entry& e, uint64_t id, const std::string& frame) {
    if (e.ended)
        return;
    switch (cg_http_stream_push(e.s->out.get(), frame)) {
        case CgHttpPush::Full:
            // The client fell behind: what it has not taken is dropped for
            // one resync, and it must read again what it watches.
            cg_http_stream_replace(e.s->out.get(),
                                   wHttpEventFrame(id, "resync", wHttpEventReasonData("overflow")));
            break;
        case CgHttpPush::Closed:
            e.ended = true;
            break;
        default:
            break;
    }
    e.lastWrite = Clock::now();
}

void Hub::end(Entry& e, const char* reason) {
    if (e.ended)
        return;
    uint64_t id;
    {
        std::lock_guard<std::mutex> lock(m_);
        id = seq_;
    }
    cg_http_stream_end(e.s->out.get(), wHttpEventFrame(id, "end", wHttpEventReasonData(reason)));
    e.ended = true;
}

// Whether an ending noted since this cycle began covers the session.
bool Hub::endingNoted(const WHttpSessionRef& owner) {
    std::lock_guard<std::mutex> lock(m_);
    for (const Ending& x : endings_)
        if (endingCovers(x, owner))
            return true;
    return false;
}

// The streams of sessions that ended: those the session table told of, and
// any whose session no longer passes (account disabled, password changed,
// entry gone), checked every cycle.
void Hub::endStreams(const Work& w) {
    for (const EntryPtr& e : w.streams) {
        if (!e->ready || e->ended)
            continue;
        const Ending* told = nullptr;
        for (const Ending& x : w.endings)
            if (endingCovers(x, e->s->owner))
                told = &x;
        if (told) {
            end(*e, told->reason.c_str());
            continue;
        }
        if (const char* reason = wHttpSessionEndReason(e->s->owner)) {
            // Told of just now: the next cycle ends it with the reason given.
            if (!endingNoted(e->s->owner))
                end(*e, reason);
        }
    }
}

void Hub::keepAlive(const std::vector<EntryPtr>& streams) {
    Clock::time_point soon = Clock::now() + std::chrono::milliseconds(limits_.keepAliveMs / 4);
    for (const EntryPtr& e : streams) {
        if (!e->started || e->ended)
            continue;
        if (e->lastWrite + std::chrono::milliseconds(limits_.keepAliveMs) <= soon) {
            if (cg_http_stream_push(e->s->out.get(), kWHttpKeepAliveFrame) == CgHttpPush::Closed)
                e->ended = true;
            e->lastWrite = Clock::now();
        }
    }
}

void Hub::prune() {
    std::lock_guard<std::mutex> lock(m_);
    std::erase_if(streams_, [](const EntryPtr& e) {
        return e->ready && cg_http_stream_closed(e->s->out.get());
    });
}

// The daemon stops: every stream hears why, and has a moment to get it out.
void Hub::shutdownStreams() {
    std::vector<EntryPtr> streams;
    {
        std::lock_guard<std::mutex> lock(m_);
        streams = streams_;
    }
    for (const EntryPtr& e : streams)
        if (e->ready)
            end(*e, "shutdown");
    std::unique_lock<std::mutex> lock(m_);
    cv_.wait_for(lock, std::chrono::seconds(2), [&] {
        for (const EntryPtr& e : streams_)
            if (e->ready && !cg_http_stream_closed(e->s->out.get()))
                return false;
        return true;
    });
}

}  // namespace

void wHttpEventsStart(const WHttpEventLimits& limits) {
    hub().start(limits);
}

void wHttpEventsStop(void) {
    hub().stop();
}

WHttpEventAdmit wHttpEventsReserve(const std::shared_ptr<WHttpEventStream>& stream) {
    return hub().reserve(stream);
}

void wHttpEventsOpened(const std::shared_ptr<WHttpEventStream>& stream) {
    hub().opened(stream);
}

void wHttpEventsAbandon(const std::shared_ptr<WHttpEventStream>& stream) {
    hub().abandon(stream);
}

void wHttpEventsClosed(void) {
    hub().poke();
}
