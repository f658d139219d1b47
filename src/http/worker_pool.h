// A bounded pool of worker threads with small stacks for the HTTP adapter's
// request handlers.  It keeps a few threads and grows up to a ceiling when a
// job has waited a moment with every thread busy, so that long handlers (a WPS start that waits up
// to 40 s, a firmware download) never starve the quick ones, but not while every busy thread
// computes (more threads would not answer sooner); threads above the floor leave again
// after a spell of idleness.  Jobs beyond the queue's bound are refused: the caller answers "busy"
// instead of piling up work.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

struct WorkerPoolConfig {
    int minThreads = 2;
    int maxThreads = 16;
    int maxQueued = 64;  // jobs waiting for a thread
    size_t stackBytes = 256 * 1024;
    int idleExitMs = 30000;            // a thread above the floor leaves after this
    int growAfterMs = 20;              // a job waiting this long with every thread busy adds one
    std::function<void()> threadInit;  // runs first on every new thread
};

class WorkerPool {
  public:
    explicit WorkerPool(WorkerPoolConfig config);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Queues a job; false when the pool is stopping or its queue is full.
    bool submit(std::function<void()> job);
    // Refuses new jobs, lets the queued and running ones finish and waits up
    // to `waitMs` for the threads to leave.  Threads still busy after that
    // keep the pool's state alive until they are done.
    void stop(int waitMs);
    int threadCount() const;

    struct State;

  private:
    std::shared_ptr<State> state_;
};

// Starts a detached thread with a stack of `stackBytes` (raised to what the
// sanitizers need in their builds); false when the system refuses.
bool startSmallStackThread(size_t stackBytes, std::function<void()> body);
