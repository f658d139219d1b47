// Worker pool of the HTTP adapter: see worker_pool.h.
#include "http/worker_pool.h"

#include <pthread.h>
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>

namespace {

// Sanitizer builds put red zones around every frame; their threads get
// a larger stack so that the same code fits.
size_t adjustedStack(size_t bytes) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr size_t kSanitizerStack = 4u << 20;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    constexpr size_t kSanitizerStack = 4u << 20;
#else
    constexpr size_t kSanitizerStack = 0;
#endif
#else
    constexpr size_t kSanitizerStack = 0;
#endif
    if (bytes < kSanitizerStack)
        bytes = kSanitizerStack;
    if (bytes < static_cast<size_t>(PTHREAD_STACK_MIN))
        bytes = PTHREAD_STACK_MIN;
    return bytes;
}

void* threadMain(void* arg) {
    std::unique_ptr<std::function<void()>> body(static_cast<std::function<void()>*>(arg));
    (*body)();
    return nullptr;
}

}  // namespace

bool startSmallStackThread(size_t stackBytes, std::function<void()> body) {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        return false;
    pthread_attr_setstacksize(&attr, adjustedStack(stackBytes));
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    auto* arg = new std::function<void()>(std::move(body));
    pthread_t tid;
    int rc = pthread_create(&tid, &attr, threadMain, arg);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete arg;
        return false;
    }
    return true;
}

struct WorkerPool::State {
    WorkerPoolConfig config;
    std::mutex m;
    std::condition_variable work;   // a job arrived or the pool stops
    std::condition_variable gone;   // a thread left
    std::condition_variable watch;  // jobs wait and no thread is free
    struct Job {
        std::function<void()> run;
        std::chrono::steady_clock::time_point queued;
    };
    std::deque<Job> jobs;
    int threads = 0;
    int idle = 0;      // waiting for a job
    int starting = 0;  // created, not yet waiting
    bool stopping = false;
    bool watching = false;  // the watcher is looking at a waiting job
    bool watcher = false;   // the watcher thread runs
    // Each thread's CPU clock, so that the watcher can tell threads that
    // compute from threads that wait.
    struct Slot {
        clockid_t clock;
        bool busy = false;
        int64_t cpuSeen = 0;  // CPU time (ns) when the watcher last looked
    };
    std::list<Slot> slots;
};

namespace {

// Takes the next job; an empty job tells the thread to leave.
std::function<void()> nextJob(WorkerPool::State& s, std::unique_lock<std::mutex>& lock) {
    auto idleFor = std::chrono::milliseconds(s.config.idleExitMs);
    for (;;) {
        if (!s.jobs.empty()) {
            std::function<void()> job = std::move(s.jobs.front().run);
            s.jobs.pop_front();
            return job;
        }
        if (s.stopping)
            return {};
        ++s.idle;
        bool woke = s.work.wait_for(lock, idleFor, [&] { return !s.jobs.empty() || s.stopping; });
        --s.idle;
        if (!woke && s.threads > s.config.minThreads)
            return {};
    }
}

int64_t cpuNanos(clockid_t clock) {
    timespec t{};
    if (clock_gettime(clock, &t) != 0)
        return 0;
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

void workerLoop(std::shared_ptr<WorkerPool::State> s) {
    if (s->config.threadInit)
        s->config.threadInit();
    clockid_t clock = CLOCK_THREAD_CPUTIME_ID;
    pthread_getcpuclockid(pthread_self(), &clock);
    std::unique_lock<std::mutex> lock(s->m);
    auto slot = s->slots.insert(s->slots.end(), WorkerPool::State::Slot{clock});
    --s->starting;
    for (;;) {
        std::function<void()> job = nextJob(*s, lock);
        if (!job)
            break;
        slot->busy = true;
        lock.unlock();
        job();
        job = nullptr;  // whatever the job holds goes before the next wait
        lock.lock();
        slot->busy = false;
    }
    s->slots.erase(slot);  // before the thread (and its clock) is gone
    --s->threads;
    s->gone.notify_all();
}

// Called with the lock held.
void noteCpu(WorkerPool::State& s) {
    for (auto& slot : s.slots)
        slot.cpuSeen = cpuNanos(slot.clock);
}

// Whether every busy thread computed during `span` (used a tenth of it or
// more on a CPU, however many threads shared the CPUs): none of them waits
// for anything, so another thread would only share the CPUs with them (and
// keep its stack and allocator cache after the rush).  A thread that waits
// (a WPS start, a download, a lock) uses next to none.  Called with the lock
// held.
bool busyThreadsCompute(WorkerPool::State& s, std::chrono::milliseconds span) {
    int64_t tenth = std::chrono::nanoseconds(span).count() / 10;
    bool anyBusy = false;
    for (auto& slot : s.slots) {
        if (!slot.busy)
            continue;
        anyBusy = true;
        if (cpuNanos(slot.clock) - slot.cpuSeen < tenth)
            return false;
    }
    return anyBusy;
}

// Starts one more thread; called with the lock held.
bool addThread(const std::shared_ptr<WorkerPool::State>& s) {
    ++s->threads;
    ++s->starting;
    if (startSmallStackThread(s->config.stackBytes, [s] { workerLoop(s); }))
        return true;
    --s->threads;
    --s->starting;
    return false;
}

// The watcher: the pool grows only when a job has waited `growAfterMs` with
// every thread busy, that is when long work holds the threads, and not when
// every busy thread was computing (a rush of large reads): then another
// thread brings no answer sooner.  Quick jobs under
// load are taken by the threads there are, one after another, without a
// thread (and a wake-up) for each.
void watcherLoop(std::shared_ptr<WorkerPool::State> s) {
    if (s->config.threadInit)
        s->config.threadInit();
    auto growAfter = std::chrono::milliseconds(s->config.growAfterMs);
    std::unique_lock<std::mutex> lock(s->m);
    while (!s->stopping) {
        s->watch.wait(lock, [&] { return s->watching || s->stopping; });
        noteCpu(*s);
        if (s->watch.wait_for(lock, growAfter, [&] { return s->stopping; }))
            break;
        bool noneFree = s->idle + s->starting == 0;
        if (!s->jobs.empty() && noneFree && s->threads < s->config.maxThreads &&
            std::chrono::steady_clock::now() - s->jobs.front().queued >= growAfter &&
            !busyThreadsCompute(*s, growAfter))
            addThread(s);
        s->watching = !s->jobs.empty();  // look again while jobs wait
    }
    s->watcher = false;
    s->gone.notify_all();
}

}  // namespace

WorkerPool::WorkerPool(WorkerPoolConfig config) : state_(std::make_shared<State>()) {
    if (config.minThreads < 1)
        config.minThreads = 1;
    if (config.maxThreads < config.minThreads)
        config.maxThreads = config.minThreads;
    state_->config = std::move(config);
    std::lock_guard<std::mutex> lock(state_->m);
    for (int i = 0; i < state_->config.minThreads; ++i)
        addThread(state_);
    std::shared_ptr<State> s = state_;
    s->watcher = startSmallStackThread(s->config.stackBytes, [s] { watcherLoop(s); });
}

WorkerPool::~WorkerPool() {
    stop(0);
}

bool WorkerPool::submit(std::function<void()> job) {
    bool wake = false, watch = false;
    {
        std::lock_guard<std::mutex> lock(state_->m);
        State& s = *state_;
        // Jobs not yet taken, beyond the threads that are free to take them.
        int free = s.idle + s.starting;
        int waiting = static_cast<int>(s.jobs.size());
        if (s.stopping || waiting >= free + s.config.maxQueued)
            return false;
        // Without the watcher (the system refused its thread) the pool
        // grows at once instead.
        if (!s.watcher && waiting >= free && s.threads < s.config.maxThreads)
            addThread(state_);
        if (s.threads == 0)
            return false;
        s.jobs.push_back({std::move(job), std::chrono::steady_clock::now()});
        wake = s.idle > 0;
        // More jobs than threads free to take them: the watcher looks.
        if (static_cast<int>(s.jobs.size()) > free && s.watcher && !s.watching)
            s.watching = watch = true;
    }
    // Woken after the unlock: a thread woken under the lock would only
    // block on it again.
    if (wake)
        state_->work.notify_one();
    if (watch)
        state_->watch.notify_one();
    return true;
}

void WorkerPool::stop(int waitMs) {
    std::unique_lock<std::mutex> lock(state_->m);
    state_->stopping = true;
    state_->work.notify_all();
    state_->watch.notify_all();
    state_->gone.wait_for(lock, std::chrono::milliseconds(waitMs),
                          [&] { return state_->threads == 0 && !state_->watcher; });
}

int WorkerPool::threadCount() const {
    std::lock_guard<std::mutex> lock(state_->m);
    return state_->threads;
}
