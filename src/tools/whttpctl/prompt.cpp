// whttpctl: reading a password without echo.
#include "prompt.h"

#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <iterator>

namespace whttpctl {

namespace {

// The signals that end or stop a process from the terminal or from outside.
// Each would leave the terminal without echo, so while echo is off they
// restore it first.
const int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

// What the handlers need, set before they are installed.
int gFd = -1;
termios gSaved{}, gQuiet{};

// Restores the terminal, then takes the signal's default action.  A stop
// (Ctrl-Z) comes back here on SIGCONT: echo goes off again for the rest of
// the password.  tcsetattr, sigaction, sigprocmask and raise are
// async-signal-safe.
void onSignal(int sig) {
    int savedErrno = errno;
    tcsetattr(gFd, TCSANOW, &gSaved);
    struct sigaction dfl {
    }, ours{};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(sig, &dfl, &ours);
    sigset_t just;
    sigemptyset(&just);
    sigaddset(&just, sig);
    raise(sig);
    sigprocmask(SIG_UNBLOCK, &just, nullptr);  // delivered here: ends or stops
    sigprocmask(SIG_BLOCK, &just, nullptr);
    sigaction(sig, &ours, nullptr);
    tcsetattr(gFd, TCSANOW, &gQuiet);
    errno = savedErrno;
}

// Turns the terminal's echo off for its lifetime and restores the previous
// settings afterwards: when reading ends or fails, and when a signal ends or
// stops the process meanwhile.
class EchoOff {
  public:
    explicit EchoOff(int fd) {
        if (tcgetattr(fd, &gSaved) != 0)
            return;
        gFd = fd;
        gQuiet = gSaved;
        gQuiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        gQuiet.c_lflag |= ECHONL;
        for (size_t i = 0; i < std::size(kSignals); ++i) {
            struct sigaction sa {};
            sa.sa_handler = onSignal;
            sa.sa_flags = SA_RESTART;  // the read goes on after a stop
            sigfillset(&sa.sa_mask);   // one restore at a time
            sigaction(kSignals[i], &sa, &previous_[i]);
            // A signal that the caller ignores stays ignored (nohup, a job
            // started in the background).
            if (previous_[i].sa_handler == SIG_IGN)
                sigaction(kSignals[i], &previous_[i], nullptr);
        }
        active_ = tcsetattr(fd, TCSAFLUSH, &gQuiet) == 0;
    }
    ~EchoOff() {
        if (gFd < 0)
            return;
        // No handler may run between the restore and the reinstatement.
        sigset_t all, before;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, &before);
        if (active_)
            tcsetattr(gFd, TCSAFLUSH, &gSaved);
        for (size_t i = 0; i < std::size(kSignals); ++i)
            sigaction(kSignals[i], &previous_[i], nullptr);
        gFd = -1;
        sigprocmask(SIG_SETMASK, &before, nullptr);
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

  private:
    struct sigaction previous_[std::size(kSignals)]{};
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
