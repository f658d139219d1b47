// Signal handler of the daemon.  It only sets flags and wakes the main
// thread's bus wait (async-signal-safe calls only); the main loop prints the
// session table that SIGUSR1 asks for.
#include <signal.h>
#include <unistd.h>

#include <cstring>

#include "daemon/signals.h"
#include "device/bus.h"
#include "context/response_writer.h"

std::atomic<int> gDumpRequested{0};
std::atomic<int> gStopRequested{0};

namespace {

void writeText(const char* s) {
    ssize_t n = write(STDOUT_FILENO, s, strlen(s));
    (void)n;
}

void handler(int sig, siginfo_t*, void*) {
    int saved = errno;
    char buf[48] = "Receive SIGNAL(";
    char digits[12];
    int n = 0;
    unsigned v = static_cast<unsigned>(sig);
    do
        digits[n++] = static_cast<char>('0' + v % 10), v /= 10;
    while (v);
    size_t len = strlen(buf);
    while (n)
        buf[len++] = digits[--n];
    buf[len] = '\0';
    strcat(buf, ").\n");
    writeText(buf);
    switch (sig) {
        case SIGQUIT:
        case SIGKILL:
        case SIGTERM:
            gStopRequested = 1;
            writeText("Receive SIGNAL, kill whttpd now.\n");
            wcfg_msg_serverWakeup();
            break;
        case SIGUSR1:
            gDumpRequested = 1;
            wcfg_msg_serverWakeup();
            break;
        case SIGUSR2:
            wHttpToggleCompactOutput();
            break;
        default:
            break;
    }
    errno = saved;
}

}  // namespace

void wHttpInstallSignalHandler(void) {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_SIGINFO;
    for (int sig : {SIGQUIT, SIGKILL, SIGTERM, SIGINT, SIGUSR1, SIGUSR2})
        sigaction(sig, &sa, nullptr);  // SIGKILL is refused, as it must be
    signal(SIGPIPE, SIG_IGN);
}
