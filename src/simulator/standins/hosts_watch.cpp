// The host service's own pace: the host table follows the home network
// without anybody reading it.  A thread watches, with inotify, the files the
// other services write (the DHCP leases, the Wi-Fi association lists, the
// host-probe database) and rebuilds the host table a moment after they
// change, so that a host that joins or leaves changes the configuration,
// and its followers hear of it, within a fraction of a second.  While
// nothing is written it sleeps in poll() and costs nothing.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>

#include "base/platform.h"
#include "simulator/standins/standin.h"

namespace standin {

namespace {

// The files whose changes move the host table, by directory.  The probe
// database's shared-memory file is left out: every reader writes it,
// the refresh among them.
struct Watched {
    const char* dir;
    const char* names[4];
};
const Watched kWatched[] = {
    {"/var/dnsmasq", {"dnsmasq.leases", nullptr}},
    {"/tmp", {"assoc_list.24g", "assoc_list.5g", "devscout.db", "devscout.db-wal"}},
};
// Changes that come together (a file written in pieces, a database
// transaction) make one refresh.
const int kSettleMs = 100;

struct Watcher {
    int inotifyFd = -1;
    int stopFd = -1;
    int wd[std::size(kWatched)] = {};
    std::thread thread;
};

// Never destroyed: the exit handler still reaches it.
Watcher* const gWatcher = new Watcher;

void addWatch(size_t i) {
    const uint32_t mask = IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_TO | IN_CREATE | IN_DELETE;
    gWatcher->wd[i] =
        inotify_add_watch(gWatcher->inotifyFd, platformPath(kWatched[i].dir).c_str(), mask);
}

// Whether an event may concern the hosts.  A queue that overflowed lost
// events, and a directory that went away lost its watch (it is watched
// again): either way the hosts are read again rather than risk a change
// going unseen.
bool relevant(const inotify_event& ev) {
    if (ev.mask & IN_Q_OVERFLOW)
        return true;
    for (size_t i = 0; i < std::size(kWatched); ++i) {
        if (ev.wd != gWatcher->wd[i])
            continue;
        if (ev.mask & IN_IGNORED) {
            addWatch(i);
            return true;
        }
        for (const char* name : kWatched[i].names)
            if (ev.len && name && !strcmp(ev.name, name))
                return true;
    }
    return false;
}

// Reads what inotify has; whether any of it concerns the hosts.
bool drainEvents() {
    alignas(inotify_event) char buf[4096];
    bool any = false;
    for (;;) {
        ssize_t n = read(gWatcher->inotifyFd, buf, sizeof buf);
        if (n <= 0)
            return any;
        for (char* p = buf; p < buf + n;) {
            auto* ev = reinterpret_cast<inotify_event*>(p);
            any = any || relevant(*ev);
            p += sizeof(inotify_event) + ev->len;
        }
    }
}

int64_t nowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Once something moved, the refresh follows a settling moment later, however
// busy the directories are with other files meanwhile.
void watchLoop() {
    platformBlockStopSignals();
    pollfd fds[2] = {{gWatcher->inotifyFd, POLLIN, 0}, {gWatcher->stopFd, POLLIN, 0}};
    int64_t due = -1;  // when the refresh is due; -1 none
    for (;;) {
        int wait = due < 0 ? -1 : static_cast<int>(std::max<int64_t>(0, due - nowMs()));
        int ready = poll(fds, 2, wait);
        if (ready < 0)
            continue;
        if (fds[1].revents)
            return;
        if (fds[0].revents && drainEvents() && due < 0)
            due = nowMs() + kSettleMs;
        if (due >= 0 && nowMs() >= due) {
            due = -1;
            refreshHosts();
        }
    }
}

void stopWatch() {
    if (!gWatcher->thread.joinable())
        return;
    uint64_t one = 1;
    if (write(gWatcher->stopFd, &one, sizeof one) != sizeof one)
        return;
    gWatcher->thread.join();
}

}  // namespace

void startHostsWatch() {
    static std::once_flag once;
    std::call_once(once, [] {
        gWatcher->inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        gWatcher->stopFd = eventfd(0, EFD_CLOEXEC);
        if (gWatcher->inotifyFd < 0 || gWatcher->stopFd < 0)
            return;
        for (size_t i = 0; i < std::size(kWatched); ++i)
            addWatch(i);
        gWatcher->thread = std::thread(watchLoop);
        atexit(stopWatch);
    });
}

}  // namespace standin
