// The event hub: see event_hub.h.
//
// The hub thread runs in cycles: it takes what was noted since the last
// cycle (the journal moved, streams opened or closed, sessions ended), reads
// the new journal entries, ends the streams of ended sessions, renders each
// entry once per login group that watches it, queues the frames, brings new
// streams up to date from where they resume (a bounded share of the work
// each cycle, so that the live streams never wait for a crowd that resumes),
// and sends keep-alives.  Rendering and queueing happen without the hub's
// lock, which only guards the notes and the list of streams; the session-end
// hook and the adapter's close callback take nothing but that lock.
//
// On one stream the ids only grow: every frame with an id goes through
// send(), which drops what does not come after the stream's last id.
#include "events/event_hub.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <tuple>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "auth/login_auth.h"
#include "auth/session_events.h"
#include "datamodel/ext_objects.h"
#include "datamodel/schema.h"
#include "base/log.h"
#include "base/platform.h"
#include "device/device.h"
#include "device/wcfg.h"
#include "events/event_render.h"
#include "events/event_text.h"

namespace {

using Clock = std::chrono::steady_clock;

// Journal entries read per query.
constexpr int kJournalBatch = 512;
// Events a new stream is brought up to date with per cycle, all new streams
// together; the rest follows in the next cycles, after the live events.
constexpr int kCatchUpPerCycle = 64;
// Base of the reconnection time a stream gives its client (2-4 s).
constexpr int kRetryMs = 2000;

// A stream as the hub keeps it.  The flags are read by request threads
// (admission) while the hub thread sets them; the rest is the hub thread's.
struct Entry {
    std::shared_ptr<WHttpEventStream> s;
    uint64_t from = 0;                 // entries after this one are its own
    uint64_t lastId = 0;               // the last id the stream carried
    bool greeted = false;              // its first block (retry, position) is out
    std::atomic<bool> ready{false};    // its answer is open
    std::atomic<bool> started{false};  // it is up to date: it follows the journal
    std::atomic<bool> ended{false};    // "end" queued (or its connection gone)
    Clock::time_point lastWrite = Clock::now();
    // What the stream was last told of each computed view: a view is
    // recorded whenever it is written, and is news only when it reads
    // differently from what this stream last heard.
    std::unordered_map<std::string, std::string> viewsTold;
    // While it catches up: what it missed up to `backlogUpTo`, one entry per
    // path, still to be sent.
    std::deque<wcfg::JournalEntry> backlog;
    uint64_t backlogUpTo = 0;
    // Why its session ended, when that was told before its head went out:
    // the session check that ends it later would only know that it is gone.
    std::string toldReason;
};
using EntryPtr = std::shared_ptr<Entry>;

struct Ending {
    std::string sessionID, user, reason;
};

bool endingCovers(const Ending& e, const WHttpSessionRef& owner) {
    return e.sessionID.empty() ? e.user == owner.user : e.sessionID == owner.sessionID;
}

// One journal entry as one login group sees it.
struct Rendered {
    std::string frame;  // "" when the group cannot read the object
    std::string data;   // of a computed view, to compare with what was told
    bool view = false;
};

// The entries rendered in one cycle, by entry, kind (a resume may tell an
// entry as an "add") and group: streams of the same group that resume from
// the same place cost one read per entry.
using RenderCache = std::map<std::tuple<uint64_t, wcfg::JournalKind, int>, Rendered>;

// Entries after `after`, one per path (the last, as an "add" when the path
// was added among them), in the order of their last entries; everything
// before a reset is dropped, the reset kept.
std::vector<wcfg::JournalEntry> coalesce(const std::vector<wcfg::JournalEntry>& in) {
    std::vector<wcfg::JournalEntry> out;
    std::unordered_map<std::string, size_t> last;
    for (const wcfg::JournalEntry& j : in) {
        if (j.kind == wcfg::JournalKind::Reset) {
            out.assign(1, j);
            last.clear();
            continue;
        }
        auto it = last.find(j.path);
        bool added = it != last.end() && out[it->second].kind == wcfg::JournalKind::Add;
        if (it != last.end())
            out[it->second].path.clear();  // superseded
        last[j.path] = out.size();
        out.push_back(j);
        if (added && j.kind == wcfg::JournalKind::Change)
            out.back().kind = wcfg::JournalKind::Add;
    }
    std::erase_if(out, [](const wcfg::JournalEntry& j) { return j.path.empty(); });
    return out;
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
    uint64_t position();
    bool readJournal(uint64_t after, std::vector<wcfg::JournalEntry>& out,
                     uint64_t* oldest = nullptr, uint64_t* latest = nullptr);
    bool readNew(std::vector<wcfg::JournalEntry>& entries);
    void resyncAll(const std::vector<EntryPtr>& streams, const char* reason);
    void deliver(const std::vector<wcfg::JournalEntry>& entries, const std::vector<EntryPtr>& to);
    bool offer(Entry& e, const wcfg::JournalEntry& j, RenderCache& cache);
    const Rendered& render(const wcfg::JournalEntry& j, int group, RenderCache& cache);
    bool catchUp(const std::vector<EntryPtr>& streams);
    bool missed(Entry& e, uint64_t now);
    void greet(Entry& e, uint64_t now);
    void resync(Entry& e, uint64_t id, const char* reason);
    void catchUpOne(Entry& e, int& budget, RenderCache& cache);
    void endStreams(const Work& w);
    void keepAlive(const std::vector<EntryPtr>& streams);
    void shutdownStreams();
    bool send(Entry& e, uint64_t id, const std::string& frame);
    void overflow(Entry& e, uint64_t id);
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
    bool swept_ = false;  // shutdownStreams has taken the open streams
    uint64_t seq_ = 0;    // the last journal entry read; written by the hub under m_
    std::thread hub_, follower_;
    std::unique_ptr<device::JournalReader> journal_;  // the hub thread's
};

// Whether a stream's session still stands (nullptr) or why it ended, and its
// login group now; the session table's own judgement unless a test sets one.
WHttpSessionJudge gSessionJudge = wHttpSessionEndReason;

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
    journal_ = device::current().journal->reader();
    journal_->bounds(oldest, seq_);
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
        device::current().journal->wakeWaiters();
        cv_.wait_for(lock, std::chrono::milliseconds(10));
    }
    lock.unlock();
    follower_.join();
}

WHttpEventAdmit Hub::reserve(const std::shared_ptr<WHttpEventStream>& s) {
    std::lock_guard<std::mutex> lock(m_);
    if (!started_ || stopping_)
        return WHttpEventAdmit::Stopped;
    int all = 0, mine = 0, address = 0;
    for (const EntryPtr& e : streams_) {
        if (e->ended || (e->ready && cg_http_stream_closed(e->s->out.get())))
            continue;
        ++all;
        mine += e->s->owner.sessionID == s->owner.sessionID;
        address += e->s->owner.remote == s->owner.remote;
    }
    if (mine >= limits_.perSession)
        return WHttpEventAdmit::SessionFull;
    if (address >= limits_.perAddress)
        return WHttpEventAdmit::AddressFull;
    if (all >= limits_.total)
        return WHttpEventAdmit::AllFull;
    auto e = std::make_shared<Entry>();
    e->s = s;
    e->from = seq_;
    streams_.push_back(std::move(e));
    return WHttpEventAdmit::Yes;
}

void Hub::opened(const std::shared_ptr<WHttpEventStream>& s) {
    EntryPtr late;
    {
        std::lock_guard<std::mutex> lock(m_);
        for (EntryPtr& e : streams_)
            if (e->s == s) {
                e->ready = true;
                if (swept_)
                    late = e;
            }
        poked_ = true;
    }
    // Its head went out while the daemon was stopping, after the hub had
    // ended the open streams: it is ended here, as they were.
    if (late)
        end(*late, "shutdown");
    cv_.notify_all();
}

void Hub::abandon(const std::shared_ptr<WHttpEventStream>& s) {
    {
        std::lock_guard<std::mutex> lock(m_);
        std::erase_if(streams_, [&](const EntryPtr& e) { return e->s == s; });
    }
    cv_.notify_all();
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
    device::Journal& journal = *device::current().journal;
    uint32_t seen = journal.writeCount();
    // A write between the hub's start and this count woke nobody: the hub
    // reads the journal once more from where it started.
    {
        std::lock_guard<std::mutex> lock(m_);
        moved_ = true;
    }
    cv_.notify_all();
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_);
            if (followerStop_) {
                followerDone_ = true;
                break;
            }
        }
        journal.waitForWrite(seen, 10000);
        uint32_t now = journal.writeCount();
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

uint64_t Hub::position() {
    std::lock_guard<std::mutex> lock(m_);
    return seq_;
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
        // Entries that went missing before the hub read them: the live
        // streams read again what they watch, which covers what was read.
        if (lost)
            resyncAll(live, "events lost");
        else
            deliver(entries, live);
        bool more = catchUp(w.streams);
        keepAlive(w.streams);
        prune();
        if (more)
            poke();
    }
}

// The entries written since the last read, and the new last number; false
// when entries were trimmed before the hub read them (the hub fell behind by
// more than the journal keeps).
bool Hub::readNew(std::vector<wcfg::JournalEntry>& entries) {
    uint64_t after = position();
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
    uint64_t id = position();
    for (const EntryPtr& e : streams)
        resync(*e, id, reason);
}

// The client must read again what it watches (views included); what it was
// still to be told is covered by that.
void Hub::resync(Entry& e, uint64_t id, const char* reason) {
    send(e, id, wHttpEventFrame(id, "resync", wHttpEventReasonData(reason)));
    e.viewsTold.clear();
    e.backlog.clear();
    e.from = e.backlogUpTo = std::max(e.from, id);
}

// Every entry after `after` there is now; the journal's bounds as of the
// first read, with `oldest` raised past a gap: numbers run without one, so
// a batch that does not follow the one before lost entries to a trim
// between the two reads.
bool Hub::readJournal(uint64_t after, std::vector<wcfg::JournalEntry>& out, uint64_t* oldest,
                      uint64_t* latest) {
    for (bool first = true;; first = false) {
        size_t had = out.size();
        if (!journal_->since(after, kJournalBatch, out, first ? oldest : nullptr,
                             first ? latest : nullptr)) {
            WLOG(WLOG_ERR, WHTTPD_SRC, "event hub: the change journal cannot be read\n");
            return false;
        }
        if (!first && out.size() > had && out[had].seq != after + 1 && oldest)
            *oldest = std::max(*oldest, out[had].seq);
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

// Each entry is rendered once per group for all the streams, and its
// renderings go before the next entry's: a burst of changes never piles up.
void Hub::deliver(const std::vector<wcfg::JournalEntry>& entries, const std::vector<EntryPtr>& to) {
    for (const wcfg::JournalEntry& j : entries) {
        RenderCache cache;
        for (const EntryPtr& e : to)
            offer(*e, j, cache);
    }
}

// An entry for one stream, when it watches the path and its session could
// read the object; false when nothing was sent.
bool Hub::offer(Entry& e, const wcfg::JournalEntry& j, RenderCache& cache) {
    if (j.seq <= e.from || e.ended ||
        (j.kind != wcfg::JournalKind::Reset && !wHttpPathWatched(e.s->paths, j.path)))
        return false;
    const Rendered& r = render(j, e.s->owner.group, cache);
    if (r.frame.empty())
        return false;
    // After a resync the client reads everything again, views included.
    if (j.kind == wcfg::JournalKind::Reset)
        e.viewsTold.clear();
    if (r.view) {
        std::string& told = e.viewsTold[j.path];
        if (told == r.data)
            return false;
        told = r.data;
    }
    return send(e, j.seq, r.frame);
}

// An entry as a login group reads it, once per cycle.  A deleted object can
// no longer be read: its event goes to those who could read such an object,
// as a GET of its path would (a path of the REST API).
const Rendered& Hub::render(const wcfg::JournalEntry& j, int group, RenderCache& cache) {
    auto [it, fresh] = cache.try_emplace({j.seq, j.kind, group});
    Rendered& r = it->second;
    if (!fresh)
        return r;
    if (j.kind == wcfg::JournalKind::Reset) {
        r.frame = wHttpEventFrame(j.seq, "resync", wHttpEventReasonData("configuration reset"));
    } else if (j.kind == wcfg::JournalKind::Delete) {
        if (wHttpGetSchemaObj(j.path.c_str(), nullptr, 0, nullptr, 0, nullptr))
            r.frame = wHttpEventFrame(j.seq, "delete", wHttpEventPathData(j.path));
    } else {
        r.data = wHttpEventObjectData(j.path, group);
        objIndex_t iid;
        r.view =
            j.kind == wcfg::JournalKind::Change && wcfgFeObjNameToObjId(j.path.c_str(), &iid) < 0;
        if (!r.data.empty())
            r.frame = wHttpEventFrame(j.seq, eventName(j.kind), r.data);
    }
    return r;
}

// ---------------------------------------------------------------------------
// New streams: from where they resume to where the others are.

// Brings the new streams up to date, a share of the work per cycle; true
// when some are not there yet.
bool Hub::catchUp(const std::vector<EntryPtr>& streams) {
    // Streams that resume from the same place share the renderings.
    RenderCache cache;
    int budget = kCatchUpPerCycle;
    bool more = false;
    for (const EntryPtr& e : streams) {
        if (!e->ready || e->started || e->ended)
            continue;
        if (budget <= 0) {
            more = true;
            continue;
        }
        catchUpOne(*e, budget, cache);
        more = more || !e->started;
    }
    return more;
}

// What a new stream missed: the entries after its position up to `now`
// that it watches, one per path; false when some are no longer kept.
bool Hub::missed(Entry& e, uint64_t now) {
    std::vector<wcfg::JournalEntry> read;
    uint64_t oldest = 0, latest = 0;
    if (!readJournal(std::min(e.from, now), read, &oldest, &latest) || e.from + 1 < oldest ||
        e.from > latest)
        return false;
    std::erase_if(read, [&](const wcfg::JournalEntry& j) {
        return j.seq > now || j.seq <= e.from ||
               (j.kind != wcfg::JournalKind::Reset && !wHttpPathWatched(e.s->paths, j.path));
    });
    std::vector<wcfg::JournalEntry> one = coalesce(read);
    e.backlog.assign(one.begin(), one.end());
    e.backlogUpTo = std::max(e.from, now);
    return true;
}

// A stream's first block: how long to wait before connecting again, and
// where it stands: where the journal stood when a new stream was asked for
// (what came since follows), the client's position for one that resumes
// (what it missed follows), or a resync when the client's is no longer
// kept, or when what it missed would not fit its queue.
void Hub::greet(Entry& e, uint64_t now) {
    e.greeted = true;
    const WHttpEventStream& s = *e.s;
    std::string retry = wHttpEventRetry(wHttpEventRetryMs(kRetryMs));
    e.from = s.resumeAfter.value_or(s.openedAt);
    bool kept = !s.resumeUnreadable && missed(e, now);
    if (!kept || e.backlog.size() > static_cast<size_t>(limits_.queue)) {
        e.from = e.backlogUpTo = now;
        e.backlog.clear();
        const char* why = kept ? "overflow" : "events lost";
        send(e, now, retry + wHttpEventFrame(now, "resync", wHttpEventReasonData(why)));
        return;
    }
    send(e, e.from, retry + wHttpEventPosition(e.from));
}

// Sends what the stream missed, as far as the cycle's budget goes; what was
// written while it caught up is read in turn, until it has reached the
// others and follows the journal with them.
void Hub::catchUpOne(Entry& e, int& budget, RenderCache& cache) {
    uint64_t now = position();
    if (!e.greeted)
        greet(e, now);
    else if (e.backlog.empty() && e.backlogUpTo < now && !missed(e, now))
        resync(e, now, "events lost");
    for (; !e.backlog.empty(); e.backlog.pop_front()) {
        if (budget-- <= 0)
            return;
        offer(e, e.backlog.front(), cache);
        e.from = e.backlog.front().seq;
    }
    e.from = std::max(e.from, e.backlogUpTo);
    if (e.backlogUpTo < now)
        return;  // the rest in the next cycle
    if (e.lastId < now)
        send(e, now, wHttpEventPosition(now));
    e.started = true;
    e.lastWrite = Clock::now();
}

// ---------------------------------------------------------------------------
// Sending, ending, keeping alive.

// Queues a frame that carries `id`; a frame whose id does not come after the
// stream's last is dropped.  False when nothing was queued.
bool Hub::send(Entry& e, uint64_t id, const std::string& frame) {
    if (e.ended || (e.lastId != 0 && id <= e.lastId))
        return false;
    e.lastWrite = Clock::now();
    switch (cg_http_stream_push(e.s->out.get(), frame)) {
        case CgHttpPush::Queued:
            e.lastId = id;
            return true;
        case CgHttpPush::Full:
            overflow(e, id);
            return true;
        case CgHttpPush::Closed:
            e.ended = true;
            return false;
        default:
            return false;
    }
}

// The client fell behind (or its queue went to clients that keep up): what
// it has not taken is dropped for one resync, and it must read again what
// it watches.
void Hub::overflow(Entry& e, uint64_t id) {
    cg_http_stream_replace(e.s->out.get(),
                           wHttpEventFrame(id, "resync", wHttpEventReasonData("overflow")));
    e.lastId = id;
    e.viewsTold.clear();
}

void Hub::end(Entry& e, const char* reason) {
    if (e.ended)
        return;
    cg_http_stream_end(e.s->out.get(), wHttpEventNotice("end", wHttpEventReasonData(reason)));
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
// entry gone), checked every cycle.  A session whose account moved to
// another login group reads as that group from now on, as its requests do.
void Hub::endStreams(const Work& w) {
    for (const EntryPtr& e : w.streams) {
        if (e->ended)
            continue;
        const Ending* told = nullptr;
        for (const Ending& x : w.endings)
            if (endingCovers(x, e->s->owner))
                told = &x;
        if (!e->ready) {
            // Kept for when its head is out.  The end of a whole account is
            // not: the session check finds it again, and a session of that
            // account opened since is not ended by it.
            if (told && !told->sessionID.empty())
                e->toldReason = told->reason;
            continue;
        }
        if (told || !e->toldReason.empty()) {
            end(*e, told ? told->reason.c_str() : e->toldReason.c_str());
            continue;
        }
        int group = 0;
        if (const char* reason = gSessionJudge(e->s->owner, &group)) {
            // Told of just now: the next cycle ends it with the reason given.
            if (!endingNoted(e->s->owner))
                end(*e, reason);
        } else if (group > 0 && group != e->s->owner.group) {
            e->s->owner.group = group;
            e->viewsTold.clear();
        }
    }
}

// A stream that has been silent for a while gets a comment, with the
// journal's position when the stream is behind it (what it watches did not
// change), so that a client that comes back resumes from near the end.
void Hub::keepAlive(const std::vector<EntryPtr>& streams) {
    Clock::time_point soon = Clock::now() + std::chrono::milliseconds(limits_.keepAliveMs / 4);
    uint64_t now = position();
    for (const EntryPtr& e : streams) {
        if (!e->started || e->ended ||
            e->lastWrite + std::chrono::milliseconds(limits_.keepAliveMs) > soon)
            continue;
        if (now > e->lastId) {
            send(*e, now, wHttpEventKeepAlive(now));
            continue;
        }
        e->lastWrite = Clock::now();
        switch (cg_http_stream_push(e->s->out.get(), kWHttpKeepAliveFrame)) {
            case CgHttpPush::Closed:
                e->ended = true;
                break;
            case CgHttpPush::Full:
                // Its queue was taken for others while nothing new came for
                // it: it hears that it lost what it had not read.
                overflow(*e, e->lastId);
                break;
            default:
                break;
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
    // Under the lock, so that a stream opening now is either taken here
    // or ends itself in opened(), never neither nor both.
    std::vector<EntryPtr> streams;
    {
        std::lock_guard<std::mutex> lock(m_);
        for (const EntryPtr& e : streams_)
            if (e->ready)
                streams.push_back(e);
        swept_ = true;
    }
    for (const EntryPtr& e : streams)
        end(*e, "shutdown");
    // The moment also covers a stream still opening: its "end" must be out
    // before the server closes the connections.
    std::unique_lock<std::mutex> lock(m_);
    cv_.wait_for(lock, std::chrono::seconds(2), [&] {
        for (const EntryPtr& e : streams_)
            if (!e->ready || !cg_http_stream_closed(e->s->out.get()))
                return false;
        return true;
    });
}

WHttpEventLimits gLimits;

}  // namespace

void wHttpEventsStart(const WHttpEventLimits& limits) {
    gLimits = limits;
    hub().start(limits);
}

const WHttpEventLimits& wHttpEventLimits(void) {
    return gLimits;
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

void wHttpEventsSetSessionJudge(WHttpSessionJudge judge) {
    gSessionJudge = judge ? judge : wHttpSessionEndReason;
}

void wHttpEventsClosed(void) {
    hub().poke();
}
