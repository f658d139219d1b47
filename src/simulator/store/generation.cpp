// The store's shared generation counter in a memory-mapped file.
#include "simulator/store/generation.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/platform.h"

namespace wcfg {

static_assert(std::atomic<uint32_t>::is_always_lock_free,
              "the shared counter must be lock-free to work across processes");

namespace {
const size_t kMapSize = 4096;
// The count of waiting threads lives in the same page, a cache line away
// from the counter.
const size_t kWaitersOffset = 64;

long futex(const std::atomic<uint32_t>* word, int op, uint32_t value, const timespec* timeout) {
    // The futex is shared between processes: no FUTEX_PRIVATE_FLAG.
    return syscall(SYS_futex, reinterpret_cast<const uint32_t*>(word), op, value, timeout, nullptr,
                   0);
}
}  // namespace

Generation::~Generation() {
    for (void* m : maps_)
        munmap(m, kMapSize);
    if (fd_ >= 0)
        close(fd_);
}

void Generation::open(const std::string& file) {
    file_ = file;
    int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "cannot open %s\n", file.c_str());
        return;
    }
    struct stat st;
    // Several processes may size the new file at once; all make it the same.
    if (fstat(fd, &st) != 0 ||
        (st.st_size < static_cast<off_t>(kMapSize) && ftruncate(fd, kMapSize) != 0)) {
        close(fd);
        return;
    }
    void* m = mmap(nullptr, kMapSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "cannot map %s\n", file.c_str());
        close(fd);
        return;
    }
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
    dev_ = st.st_dev;
    ino_ = st.st_ino;
    maps_.push_back(m);
    // A zero-filled page holds a valid counter: 0, even.
    word_.store(static_cast<std::atomic<uint32_t>*>(m), std::memory_order_release);
    shared_.store(true, std::memory_order_release);
}

bool Generation::replaced() const {
    if (fd_ < 0)
        return false;
    struct stat mine, now;
    return fstat(fd_, &mine) != 0 || mine.st_nlink == 0 || stat(file_.c_str(), &now) != 0 ||
           now.st_dev != dev_ || now.st_ino != ino_;
}

void Generation::reopen() {
    wlog_log_f(WLOG_NOTICE, "wcfg", __LINE__, __func__, "%s was replaced: mapping it again\n",
               file_.c_str());
    open(file_);
}

std::atomic<uint32_t>* Generation::waiters() const {
    std::atomic<uint32_t>* w = word_.load(std::memory_order_acquire);
    if (w == &local_)
        return const_cast<std::atomic<uint32_t>*>(&localWaiters_);
    return reinterpret_cast<std::atomic<uint32_t>*>(reinterpret_cast<char*>(w) + kWaitersOffset);
}

// The waiter announces itself before it looks at the counter, and a writer
// changes the counter before it looks for waiters: one of the two always
// sees the other.  A waiter killed while waiting leaves the count raised,
// which costs the writers a needless wake, nothing more.
void Generation::wait(uint32_t seen, int timeoutMs) const {
    std::atomic<uint32_t>* w = word_.load(std::memory_order_acquire);
    std::atomic<uint32_t>* count = waiters();
    count->fetch_add(1, std::memory_order_seq_cst);
    if (w->load(std::memory_order_seq_cst) == seen) {
        timespec ts{timeoutMs / 1000, static_cast<long>(timeoutMs % 1000) * 1000000};
        futex(w, FUTEX_WAIT, seen, &ts);
    }
    count->fetch_sub(1, std::memory_order_seq_cst);
}

void Generation::wakeWaiters() const {
    std::atomic<uint32_t>* w = word_.load(std::memory_order_acquire);
    if (waiters()->load(std::memory_order_seq_cst) != 0)
        futex(w, FUTEX_WAKE, INT32_MAX, nullptr);
}

uint32_t Generation::beginWrite() {
    std::atomic<uint32_t>* w = word_.load(std::memory_order_acquire);
    uint32_t cur = w->load(std::memory_order_relaxed);
    uint32_t odd;
    do {
        odd = (cur | 1u) + ((cur & 1u) ? 2u : 0u);
    } while (!w->compare_exchange_weak(cur, odd, std::memory_order_acq_rel));
    return odd;
}

uint32_t Generation::endWrite(uint32_t odd) {
    if (!isShared())
        return 0;  // a private counter stays odd: readers always check
    uint32_t expected = odd;
    bool ended = word_.load(std::memory_order_acquire)
                     ->compare_exchange_strong(expected, odd + 1, std::memory_order_seq_cst);
    wakeWaiters();
    return ended ? odd + 1 : 0;
}

}  // namespace wcfg
