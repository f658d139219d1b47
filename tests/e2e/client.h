// REST client helpers of the end-to-end tests: logins, session cookies and
// keys, answers as JSON, and the daemon's timer clock.
#pragma once

#include <string>

#include "harness.h"

namespace e2e {

struct Session {
    std::string id;  // value of the "Session" cookie
    long key = 0;    // the latest session key
};

// A client that connects to `host` (the daemon's local address) from
// `local` (its own source address; empty: the system's choice).
class Client {
  public:
    explicit Client(int port, std::string host = "127.0.0.1", std::string local = "")
        : port_(port), host_(std::move(host)), local_(std::move(local)) {}
    // `path` below /api/v1/, e.g. "UserLogout?sessionkey=1".
    Reply request(const std::string& method, const std::string& path, const std::string& body = "",
                  const Session* session = nullptr) const;
    // A modifying request with the session's key; keeps the key that the
    // answer renews.
    Reply write(const std::string& method, const std::string& path, const std::string& body,
                Session& session) const;
    // POST UserLogin; fills `session` from a successful answer.
    Reply login(const std::string& user, const std::string& password, Session* session = nullptr,
                const Session* cookie = nullptr) const;

  private:
    int port_;
    std::string host_, local_;
};

// "oper_status" of an answer ("" when the body is no JSON object).
std::string operStatus(const Reply& r);
// An integer member of an answer, or -1.
long jsonInt(const std::string& body, const std::string& key);
// `path` with "?sessionkey=" (or "&sessionkey=") and the session's key.
std::string withKey(const std::string& path, const Session& s);

// Occurrences of `what` in `text`.
size_t countOf(const std::string& text, const std::string& what);
void sleepMs(int ms);
// Sets the maximum number of login accounts of a root (0: no limit);
// returns wcfgctl's exit status.
int setMaxLoginAccounts(const DeviceRoot& root, int max);

// The uptime file that the daemon's timer service reads instead of
// /proc/uptime: tests move the daemon's clock with it.
class Uptime {
  public:
    explicit Uptime(const DeviceRoot& root);
    const std::string& path() const { return path_; }
    double seconds() const { return seconds_; }
    void set(double seconds);
    void advance(double seconds) { set(seconds_ + seconds); }

  private:
    std::string path_;
    double seconds_ = 0;
};

// Starts `d` in `root` on a free port with the clock file `clock` (if
// given); returns the port, or 0 when the daemon did not come up.
int startDaemon(Daemon& d, const DeviceRoot& root, const Uptime* clock = nullptr);

}  // namespace e2e
