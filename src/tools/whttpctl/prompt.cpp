#include "prompt.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace whttpctl {

namespace {

// Turns the terminal's echo off for its lifetime and restores the previous
// settings afterwards, also when reading fails.
class EchoOff {
  public:
    explicit EchoOff(int fd) : fd_(fd) {
        if (tcgetattr(fd_, &saved_) != 0)
            return;
        termios quiet = saved_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        active_ = tcsetattr(fd_, TCSAFLUSH, &quiet) == 0;
    }
    ~EchoOff() {
        if (active_)
            tcsetattr(fd_, TCSAFLUSH, &saved_);
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

  private:
    int fd_;
    termios saved_{};
    bool active_ = false;
};

}  // namespace

bool readSecret(const std::string& prompt, std::string& secret) {
    if (!isatty(STDIN_FILENO))
        return static_cast<bool>(std::getline(std::cin, secret));
    // Echo goes off before the prompt shows: what is typed once the prompt is
    // there is never echoed, nor discarded by the switch.
    EchoOff quiet(STDIN_FILENO);
    fprintf(stderr, "%s", prompt.c_str());
    fflush(stderr);
    return static_cast<bool>(std::getline(std::cin, secret));
}

}  // namespace whttpctl
