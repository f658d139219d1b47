// Owner of a file descriptor or socket: closed when it goes out of scope.
#pragma once

#include <unistd.h>

namespace whttpctl {

class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0)
            close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    void reset(int fd) {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_;
};

}  // namespace whttpctl
