#include "platform/store/generation.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "platform/platform.h"

namespace wcfg {

static_assert(std::atomic<uint32_t>::is_always_lock_free,
              "the shared counter must be lock-free to work across processes");

namespace {
const size_t kMapSize = 4096;
}

Generation::~Generation() {
    if (map_)
        munmap(map_, kMapSize);
}

void Generation::open(const std::string& file) {
    int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "cannot open %s\n", file.c_str());
        return;
    }
    struct stat st;
    // Several processes may size the new file at once; all make it the same.
    if (fstat(fd, &st) == 0 && st.st_size < static_cast<off_t>(kMapSize) &&
        ftruncate(fd, kMapSize) != 0) {
        close(fd);
        return;
    }
    void* m = mmap(nullptr, kMapSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (m == MAP_FAILED) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "cannot map %s\n", file.c_str());
        return;
    }
    map_ = m;
    // A zero-filled page holds a valid counter: 0, even.
    word_ = static_cast<std::atomic<uint32_t>*>(m);
}

uint32_t Generation::beginWrite() {
    uint32_t cur = word_->load(std::memory_order_relaxed);
    uint32_t odd;
    do {
        odd = (cur | 1u) + ((cur & 1u) ? 2u : 0u);
    } while (!word_->compare_exchange_weak(cur, odd, std::memory_order_acq_rel));
    return odd;
}

uint32_t Generation::endWrite(uint32_t odd) {
    if (!map_)
        return 0;  // a private counter stays odd: readers always check
    uint32_t expected = odd;
    return word_->compare_exchange_strong(expected, odd + 1, std::memory_order_acq_rel) ? odd + 1
                                                                                        : 0;
}

}  // namespace wcfg
