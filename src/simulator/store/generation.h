// The store's generation: a counter shared by every process that writes the
// store, kept in a small memory-mapped file ("/var/run/wcfg/config.gen"), so
// that a reader learns with one memory load whether its in-memory image of
// the store may be out of date.
//
// A writer makes the counter odd (a new value) once it holds the database's
// write lock and even again (the next value) after its commit.  An even value
// that a reader has already checked against the database means that nothing
// was committed since; any other value sends the reader to the database.  A
// writer killed in between leaves the counter odd: readers then check the
// database on every read until the next write, and nothing is missed.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace wcfg {

class Generation {
  public:
    Generation() = default;
    ~Generation();
    Generation(const Generation&) = delete;
    Generation& operator=(const Generation&) = delete;

    // Maps the file (created when missing).  Without it the counter is
    // private to this process and stays odd: every read checks the database,
    // and the store refuses to write (other processes would not see it).
    void open(const std::string& file);
    bool isShared() const { return shared_.load(std::memory_order_acquire); }
    // Whether the file was removed or replaced since it was mapped (someone
    // cleaned the run directory): the counter that others bump is elsewhere.
    bool replaced() const;
    // Maps the file anew; the old mapping stays valid for readers still on it.
    void reopen();

    uint32_t load() const {
        return word_.load(std::memory_order_acquire)->load(std::memory_order_acquire);
    }
    // Waits until the counter differs from `seen`, a write ends anywhere, or
    // `timeoutMs` passes; a write by any process that maps the file wakes
    // it (a futex on the shared word), so a follower costs nothing while
    // nothing is written.
    void wait(uint32_t seen, int timeoutMs) const;
    // Marks a write in progress: returns the new odd value.
    uint32_t beginWrite();
    // Ends the write begun with `odd`, unless another writer has begun since;
    // returns the even value written, or 0 when the counter moved on.
    uint32_t endWrite(uint32_t odd);

    // Wakes the threads of every process waiting in wait(), if there are any.
    void wakeWaiters() const;

  private:
    std::atomic<uint32_t>* waiters() const;

    std::string file_;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
    int fd_ = -1;
    std::vector<void*> maps_;
    std::atomic<bool> shared_{false};
    std::atomic<uint32_t> local_{1};
    std::atomic<uint32_t> localWaiters_{0};
    std::atomic<std::atomic<uint32_t>*> word_{&local_};
};

}  // namespace wcfg
