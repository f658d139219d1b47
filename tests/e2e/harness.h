// Harness of the end-to-end tests: a fresh device root, the real daemon
// started in it, and an HTTPS client.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace e2e {

// A device root prepared by `wcfgctl init` in a temporary directory.
class DeviceRoot {
  public:
    DeviceRoot();
    ~DeviceRoot();
    const std::string& dir() const { return dir_; }
    std::string path(const std::string& abs) const { return dir_ + abs; }
    // Runs wcfgctl in this root; returns its exit status, output in `out`.
    int wcfgctl(const std::vector<std::string>& args, std::string* out = nullptr) const;
    // Runs the program argv[0] in this root; its exit status, output in `out`.
    int run(const std::vector<std::string>& argv, std::string* out = nullptr) const;
    std::string read(const std::string& abs) const;
    bool exists(const std::string& abs) const;

  private:
    std::string dir_;
};

// The daemon, started as a child process.
class Daemon {
  public:
    ~Daemon();
    // Starts build/whttpd_rest with `args` in `root`; a platform second lasts
    // 10 ms so that the certificate wait passes quickly.
    bool start(const DeviceRoot& root, const std::vector<std::string>& args);
    // An environment variable for the next start.
    void setEnv(const std::string& name, const std::string& value) {
        env_.emplace_back(name, value);
    }
    // An environment variable the next start goes without.
    void unsetEnv(const std::string& name) { env_.emplace_back("-" + name, ""); }
    // Waits until the daemon accepts connections on `port`, its bus endpoint
    // is bound and its discovery port taken.
    bool waitReady(int port, int timeoutMs = 30000);
    // Sends a signal; waits for the exit and returns the exit status.
    int stop(int sig = 15, int timeoutMs = 20000);
    // Waits for the exit; returns the exit status or -1000 on time-out.
    int wait(int timeoutMs);
    void signal(int sig) const;
    pid_t pid() const { return pid_; }
    // The UDP port of its discovery responder (a free one unless the
    // environment names one).
    int discoveryPort() const { return discoveryPort_; }
    std::string out() const;  // standard output so far
    std::string err() const;  // standard error so far
    // Waits until standard output or error contains `text`.
    bool waitForOutput(const std::string& text, int timeoutMs = 10000) const;
    // Waits until the output holds `text` at least `count` times.
    bool waitForCount(const std::string& text, size_t count, int timeoutMs = 20000) const;

  private:
    bool busBound() const;

    pid_t pid_ = -1;
    int discoveryPort_ = 0;
    std::string rootDir_;
    std::string outFile_, errFile_;
    std::vector<std::pair<std::string, std::string>> env_;
};

// The stand-in cloud firmware service (fwcloud) of a root, on a free
// loopback port; start() points the root's ServerURL at it.
class Cloud {
  public:
    ~Cloud();
    // Starts fwcloud on a free port with `args` added to its command line.
    bool start(const DeviceRoot& root, const std::vector<std::string>& args = {});
    int port() const { return port_; }
    std::string url(const std::string& path) const;
    // Its access log: one line "METHOD TARGET STATUS" per request.
    std::string log() const;
    std::string err() const;

  private:
    pid_t pid_ = -1;
    int port_ = 0;
    std::string root_, outFile_, errFile_;
};

struct Reply {
    bool ok = false;  // a response arrived
    long status = 0;
    std::string headers;
    std::string body;
};

// One HTTPS request (certificate not verified).  `local` picks the client's
// source address.
Reply https(const std::string& method, const std::string& url, const std::string& body = "",
            const std::vector<std::string>& headers = {}, const std::string& local = "");

// Keeps an answer for the contract check (with WHTTPD_CONTRACT_DIR set).
void recordExchange(const std::string& method, const std::string& url, const Reply& r,
                    const char* contentType);

// The program `name` of the build that WHTTPD_PEER_BINDIR names (another
// CPU's build, talking to this one's daemon), or `own` without it.
std::string peerProgram(const std::string& name, const std::string& own);

// A TCP port that is free on loopback now.
int freePort();
// Whether some IPv4 socket holds UDP `port`.
bool udpPortTaken(int port);
// A UDP port that is free on loopback now.
int freeUdpPort();

// In a child just forked from `parent`: dies (SIGKILL) when the thread that
// forked it ends, so that a test process that aborts leaves nothing running.
void dieWithParent(pid_t parent);

}  // namespace e2e
