// HTTPS requests to the device over libcurl: one handle per run, the TLS
// choices of the command line, and bounds on every transfer.
#pragma once

#include <curl/curl.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace whttpctl {

struct TlsChoice {
    bool insecure = false;  // accept any certificate (the device's is self-signed)
    std::string cacert;     // or pin this certificate (its names are not checked)
};

struct Response {
    long status = 0;
    std::string body;
    std::string sessionCookie;  // the value of a "Session" cookie the answer set
};

struct RequestBounds {
    long totalMs = 30000;
    bool progress = false;  // draw a waiting bar on standard error
};

class Transport {
  public:
    Transport(std::string baseUrl, TlsChoice tls);
    // Sends METHOD baseUrl/api/v1/TARGET with `body` (none when empty) and
    // the session cookie (when not empty).  False with `error` set when no
    // answer arrived.
    bool send(const std::string& method, const std::string& target, const std::string& body,
              const std::string& cookie, const RequestBounds& bounds, Response& out,
              std::string& error);
    // Opens GET baseUrl/api/v1/TARGET as an event stream and hands each piece
    // of its body to `onData` while it lasts (a stream that answers 200); an
    // answer of any other status is kept whole in `out`.  `onData` returns
    // false to stop.  The transfer ends with the connection; a silence
    // longer than `silenceMs` ends it too.  False with `error` when the
    // connection failed or broke.
    bool stream(const std::string& target, const std::string& cookie,
                const std::vector<std::string>& headers, long silenceMs,
                const std::function<bool(const char*, size_t)>& onData, Response& out,
                std::string& error);
    // `text` escaped for a query value.
    std::string escape(const std::string& text);

  private:
    void configure(const RequestBounds& bounds);

    struct CurlCleanup {
        void operator()(CURL* c) const { curl_easy_cleanup(c); }
    };
    std::unique_ptr<CURL, CurlCleanup> curl_;
    std::string base_;
    TlsChoice tls_;
};

}  // namespace whttpctl
