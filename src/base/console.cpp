// The console's writer thread: see console.h.
#include "base/console.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "base/platform.h"

namespace {

// A console that cannot keep up holds up the printers beyond this, rather
// than the buffer growing without end.
constexpr size_t kMaxPending = 256 * 1024;
// The writer gathers what comes within this before it writes: under load one
// write (and one wake) per interval instead of one per line.
constexpr auto kGather = std::chrono::milliseconds(5);

struct Console {
    std::mutex m;
    std::condition_variable work, space;
    std::string pending;
    bool started = false;
    bool direct = false;   // no writer (stopping, or a child of fork)
    bool waiting = false;  // the writer sleeps until told of new text
    std::thread writer;
    pid_t owner = 0;  // the process whose thread the writer is
};

// Never destroyed: threads may print while the process exits.
Console& console() {
    static Console* const c = new Console;
    return *c;
}

void writeAll(const char* text, size_t n) {
    for (size_t done = 0; done < n;) {
        ssize_t w = write(STDOUT_FILENO, text + done, n - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return;
        done += static_cast<size_t>(w);
    }
}

void writerLoop() {
    platformBlockStopSignals();
    Console& c = console();
    std::unique_lock<std::mutex> lock(c.m);
    for (;;) {
        c.waiting = true;
        c.work.wait(lock, [&] { return !c.pending.empty() || c.direct; });
        c.waiting = false;
        if (c.pending.empty())
            return;
        if (!c.direct) {
            lock.unlock();
            std::this_thread::sleep_for(kGather);
            lock.lock();
        }
        std::string batch;
        batch.swap(c.pending);
        c.space.notify_all();
        lock.unlock();
        writeAll(batch.data(), batch.size());
        lock.lock();
    }
}

// At exit: what is queued goes out, and later prints are written directly.
void stopConsole() {
    Console& c = console();
    {
        std::lock_guard<std::mutex> lock(c.m);
        c.direct = true;
    }
    c.work.notify_all();
    c.space.notify_all();
    if (c.writer.joinable() && c.owner == getpid())
        c.writer.join();
}

void beforeFork() {
    console().m.lock();
}
void afterForkParent() {
    console().m.unlock();
}
void afterForkChild() {
    Console& c = console();
    // The parent's queued text is the parent's to write; the child has no
    // writer thread.
    c.pending.clear();
    c.direct = true;
    c.m.unlock();
}

}  // namespace

void consoleWrite(const char* text, size_t n) {
    Console& c = console();
    std::unique_lock<std::mutex> lock(c.m);
    if (!c.started && !c.direct) {
        c.started = true;
        pthread_atfork(beforeFork, afterForkParent, afterForkChild);
        c.writer = std::thread(writerLoop);
        c.owner = getpid();
        atexit(stopConsole);
    }
    if (c.direct) {
        lock.unlock();
        return writeAll(text, n);
    }
    c.space.wait(lock, [&] { return c.pending.size() < kMaxPending || c.direct; });
    c.pending.append(text, n);
    if (c.waiting)
        c.work.notify_one();
}
