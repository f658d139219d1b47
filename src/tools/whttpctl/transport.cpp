// whttpctl: HTTPS requests over libcurl.
#include "transport.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace whttpctl {

namespace {

// No device answer is this large; a bigger one is refused rather than kept.
constexpr size_t kMaxBody = 64u << 20;
constexpr long kConnectMs = 5000;

struct CurlSlist {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
using SlistPtr = std::unique_ptr<curl_slist, CurlSlist>;

size_t onBody(char* data, size_t size, size_t n, void* user) {
    auto* out = static_cast<Response*>(user);
    if (out->body.size() + size * n > kMaxBody)
        return 0;  // curl ends the transfer with a write error
    out->body.append(data, size * n);
    return size * n;
}

// Keeps the "Session" cookie of a Set-Cookie header; the daemon sets no other.
size_t onHeader(char* data, size_t size, size_t n, void* user) {
    auto* out = static_cast<Response*>(user);
    std::string line(data, size * n);
    const char* name = "set-cookie:";
    if (strncasecmp(line.c_str(), name, strlen(name)) == 0) {
        size_t at = line.find("Session=");
        if (at != std::string::npos) {
            at += 8;
            size_t end = line.find_first_of("; \r\n", at);
            out->sessionCookie = line.substr(at, end == std::string::npos ? end : end - at);
        }
    }
    return size * n;
}

// The waiting bar of a long request: the device answers only when its own
// download has ended, so the bar shows time passing, not bytes.  curl calls
// this many times a second; it redraws at most every 125 ms.
struct Bar {
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    long drawn = -1;  // the step last drawn
};

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto* bar = static_cast<Bar*>(user);
    long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                  std::chrono::steady_clock::now() - bar->start)
                  .count();
    long step = ms / 125;
    if (step == bar->drawn)
        return 0;
    bar->drawn = step;
    constexpr int kWidth = 24;
    int pos = static_cast<int>(step % (2 * kWidth - 2));
    if (pos >= kWidth)
        pos = 2 * kWidth - 2 - pos;
    char text[kWidth + 1];
    memset(text, ' ', kWidth);
    text[kWidth] = '\0';
    text[pos] = '#';
    fprintf(stderr, "\rdevice downloading the firmware [%s] %lds", text, ms / 1000);
    return 0;
}

}  // namespace

Transport::Transport(std::string baseUrl, TlsChoice tls)
    : curl_(curl_easy_init()), base_(std::move(baseUrl)), tls_(std::move(tls)) {}

std::string Transport::escape(const std::string& text) {
    std::unique_ptr<char, void (*)(void*)> e(
        curl_easy_escape(curl_.get(), text.c_str(), static_cast<int>(text.size())), curl_free);
    return e ? e.get() : "";
}

void Transport::configure(const RequestBounds& bounds) {
    CURL* c = curl_.get();
    curl_easy_reset(c);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, kConnectMs);
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, bounds.totalMs);
    if (tls_.insecure) {
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 0L);
    } else if (!tls_.cacert.empty()) {
        // The file pins the device's certificate: the device must present it
        // (or one signed by its key).  Its names are not checked: the
        // device's self-signed certificate names only localhost, and a device
        // is reached at a LAN address.
        curl_easy_setopt(c, CURLOPT_CAINFO, tls_.cacert.c_str());
        curl_easy_setopt(c, CURLOPT_CAPATH, nullptr);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, onHeader);
}

bool Transport::send(const std::string& method, const std::string& target, const std::string& body,
                     const std::string& cookie, const RequestBounds& bounds, Response& out,
                     std::string& error) {
    if (!curl_) {
        error = "cannot initialise libcurl";
        return false;
    }
    configure(bounds);
    CURL* c = curl_.get();
    out = Response{};
    std::string url = base_ + "/api/v1/" + target;
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, method.c_str());
    if (method != "GET") {
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    }
    SlistPtr headers(curl_slist_append(nullptr, "Content-Type: application/json"));
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    std::string cookieText = "Session=" + cookie;
    if (!cookie.empty())
        curl_easy_setopt(c, CURLOPT_COOKIE, cookieText.c_str());
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &out);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &out);
    Bar state;
    bool bar = bounds.progress && isatty(STDERR_FILENO);
    if (bar) {
        curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, onProgress);
        curl_easy_setopt(c, CURLOPT_XFERINFODATA, &state);
    }
    char message[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, message);
    CURLcode rc = curl_easy_perform(c);
    if (bar)
        fprintf(stderr, "\r\033[K");
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, nullptr);
    if (rc != CURLE_OK) {
        error = message[0] ? message : curl_easy_strerror(rc);
        return false;
    }
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &out.status);
    return true;
}

namespace {

struct StreamSink {
    CURL* curl;
    const std::function<bool(const char*, size_t)>* onData;
    Response* out;
};

// The body goes to the stream's reader while the answer is 200, else it is
// kept (bounded) as any answer.
size_t onStreamBody(char* data, size_t size, size_t n, void* user) {
    auto* sink = static_cast<StreamSink*>(user);
    long status = 0;
    curl_easy_getinfo(sink->curl, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200)
        return onBody(data, size, n, sink->out);
    return (*sink->onData)(data, size * n) ? size * n : 0;
}

}  // namespace

bool Transport::stream(const std::string& target, const std::string& cookie,
                       const std::vector<std::string>& headers, long silenceMs,
                       const std::function<bool(const char*, size_t)>& onData, Response& out,
                       std::string& error) {
    if (!curl_) {
        error = "cannot initialise libcurl";
        return false;
    }
    RequestBounds bounds;
    bounds.totalMs = 0;  // as long as the stream lasts
    configure(bounds);
    CURL* c = curl_.get();
    out = Response{};
    std::string url = base_ + "/api/v1/" + target;
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    // Keep-alives come every 15 s: a longer silence is a dead connection.
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, std::max(1L, silenceMs / 1000));
    SlistPtr list;
    for (const std::string& h : headers)
        list.reset(curl_slist_append(list.release(), h.c_str()));
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, list.get());
    std::string cookieText = "Session=" + cookie;
    if (!cookie.empty())
        curl_easy_setopt(c, CURLOPT_COOKIE, cookieText.c_str());
    StreamSink sink{c, &onData, &out};
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, onStreamBody);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &out);
    char message[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, message);
    CURLcode rc = curl_easy_perform(c);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &out.status);
    if (rc != CURLE_OK && rc != CURLE_WRITE_ERROR) {
        error = message[0] ? message : curl_easy_strerror(rc);
        return false;
    }
    return true;
}

}  // namespace whttpctl
