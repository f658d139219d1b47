// Event streams dropped every way a client can drop them, beside ordinary
// requests on fresh connections: STREAMS threads open GET /api/v1/Events,
// read some of it and go (a plain close, a reset, close_notify, a half
// close, bytes the daemon does not expect, a client that stops reading), one
// thread writes the watched objects all along so that the streams carry
// events, and READERS threads each open a new TLS connection per request.
// Whatever a dropped stream leaves behind must never reach another
// connection: every handshake and every answer of the readers must be whole.
//   stream_chaos PORT STREAMS READERS SECONDS
// Prints the counts; exits 1 when a handshake or an answer failed.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int gPort = 0;
SSL_CTX* gCtx = nullptr;
std::mutex gPrint;

struct Counts {
    std::atomic<long> streams{0}, events{0}, requests{0}, writes{0};
    std::atomic<long> failedHandshakes{0}, failedAnswers{0};
} gCounts;

void report(const char* what, const std::string& detail) {
    std::lock_guard<std::mutex> lock(gPrint);
    fprintf(stderr, "%s: %s\n", what, detail.c_str());
}

std::string sslError() {
    char buf[256] = "";
    unsigned long e = ERR_get_error();
    if (e)
        ERR_error_string_n(e, buf, sizeof buf);
    ERR_clear_error();
    return buf[0] ? buf : "no TLS error (connection closed)";
}

// One TLS connection to the daemon; its descriptor is its own until the
// object goes.
class Tls {
  public:
    ~Tls() { drop(); }
    // `waitSeconds`: the longest wait for a byte (a quiet stream's client
    // gives up sooner than one that expects an answer).
    bool open(int waitSeconds = 20) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(gPort));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
            return false;
        timeval tv{waitSeconds, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        ssl_ = SSL_new(gCtx);
        SSL_set_fd(ssl_, fd_);
        if (SSL_connect(ssl_) == 1)
            return true;
        error_ = sslError();
        return false;
    }
    bool send(const std::string& s) { return SSL_write(ssl_, s.data(), int(s.size())) > 0; }
    // Some bytes, or "" at the end (or on an error, kept in error()).
    std::string read() {
        char buf[16384];
        int n = SSL_read(ssl_, buf, sizeof buf);
        if (n > 0)
            return std::string(buf, size_t(n));
        int e = SSL_get_error(ssl_, n);
        if (e != SSL_ERROR_ZERO_RETURN)
            error_ = sslError();
        return "";
    }
    // A whole answer with a Content-Length; false on anything else.
    bool answer(std::string& out) {
        size_t head;
        while ((head = out.find("\r\n\r\n")) == std::string::npos) {
            std::string more = read();
            if (more.empty())
                return false;
            out += more;
        }
        size_t at = out.find("Content-Length: ");
        if (at == std::string::npos || at > head)
            return false;
        size_t length = strtoul(out.c_str() + at + 16, nullptr, 10);
        while (out.size() < head + 4 + length) {
            std::string more = read();
            if (more.empty())
                return false;
            out += more;
        }
        return true;
    }
    void reset() {
        linger l{1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    }
    void closeNotify() {
        if (ssl_)
            SSL_shutdown(ssl_);
    }
    void halfClose() { shutdown(fd_, SHUT_WR); }
    void stopReading() {
        int small = 1024;
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    }
    void drop() {
        if (ssl_)
            SSL_free(ssl_);
        ssl_ = nullptr;
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }
    const std::string& error() const { return error_; }

  private:
    int fd_ = -1;
    SSL* ssl_ = nullptr;
    std::string error_;
};

std::string gCookie;
std::mutex gKeyMutex;
long gKey = 0;

// POST UserLogin on a connection of its own: the cookie and the first key.
bool login() {
    Tls t;
    std::string body = R"({"username":"admin","password":"1234abcd"})";
    std::string out;
    if (!t.open() ||
        !t.send("POST /api/v1/UserLogin HTTP/1.1\r\nHost: d\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body) ||
        !t.answer(out))
        return false;
    size_t at = out.find("Session=");
    size_t key = out.find("\"sessionkey\": ");
    if (at == std::string::npos || key == std::string::npos)
        return false;
    gCookie = out.substr(at, out.find(';', at) - at);
    gKey = atol(out.c_str() + key + 14);
    return true;
}

// A request on a fresh connection, answered 200 in whole.
bool request(const std::string& method, const std::string& path, const std::string& body,
             std::string* answer = nullptr) {
    Tls t;
    if (!t.open()) {
        ++gCounts.failedHandshakes;
        report("handshake", t.error());
        return false;
    }
    std::string out;
    bool ok = t.send(method + " /api/v1/" + path + " HTTP/1.1\r\nHost: d\r\nCookie: " + gCookie +
                     "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body) &&
              t.answer(out) && out.compare(0, 12, "HTTP/1.1 200") == 0;
    if (!ok) {
        ++gCounts.failedAnswers;
        report("answer", t.error() + " | " + out.substr(0, out.find("\r\n")));
    }
    if (answer)
        *answer = out;
    ++gCounts.requests;
    return ok;
}

void writer(Clock::time_point end) {
    for (long i = 0; Clock::now() < end; ++i) {
        std::lock_guard<std::mutex> lock(gKeyMutex);
        std::string out;
        std::string path = "TR181/Value/Device.WiFi.SSID." + std::to_string(1 + i % 2) +
                           ".?sessionkey=" + std::to_string(gKey);
        if (request("PUT", path, "{\"SSID\":\"chaos-" + std::to_string(i) + "\"}", &out)) {
            size_t key = out.find("\"sessionkey\": ");
            if (key != std::string::npos)
                gKey = atol(out.c_str() + key + 14);
            ++gCounts.writes;
        }
    }
}

void reader(Clock::time_point end) {
    while (Clock::now() < end)
        request("GET", "TR181/Value/Device.DeviceInfo.", "");
}

// How a stream is left.
enum class Leave { Close, Reset, CloseNotify, HalfClose, Garbage, StopReading, kCount };

void oneStream(std::mt19937& rng) {
    static const char* const kPaths[] = {"", "?path=Device.WiFi.SSID.1.", "?path=Device.WiFi.",
                                         "?path=Device.WiFi.SSID.2.&path=Device.Hosts."};
    Tls t;
    if (!t.open(2)) {
        ++gCounts.failedHandshakes;
        report("stream handshake", t.error());
        return;
    }
    ++gCounts.streams;
    std::string query = kPaths[rng() % 4];
    if (!t.send("GET /api/v1/Events" + query + " HTTP/1.1\r\nHost: d\r\nCookie: " + gCookie +
                "\r\n\r\n"))
        return;
    // Nothing, the head, or up to a few events.
    int reads = static_cast<int>(rng() % 5);
    for (int i = 0; i < reads; ++i) {
        std::string got = t.read();
        if (got.empty())
            break;
        if (got.find("event: change") != std::string::npos)
            ++gCounts.events;
    }
    switch (static_cast<Leave>(rng() % static_cast<unsigned>(Leave::kCount))) {
        case Leave::Reset:
            t.reset();
            break;
        case Leave::CloseNotify:
            t.closeNotify();
            break;
        case Leave::HalfClose:
            t.halfClose();
            t.read();
            break;
        case Leave::Garbage:
            t.send("GET / HTTP/1.1\r\n\r\n");
            break;
        case Leave::StopReading:
            t.stopReading();
            std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 50));
            break;
        default:
            break;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        fprintf(stderr, "usage: %s PORT STREAMS READERS SECONDS\n", argv[0]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    gPort = atoi(argv[1]);
    int streams = atoi(argv[2]), readers = atoi(argv[3]);
    Clock::time_point end = Clock::now() + std::chrono::seconds(atoi(argv[4]));
    gCtx = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_verify(gCtx, SSL_VERIFY_NONE, nullptr);
    if (!login()) {
        fprintf(stderr, "stream_chaos: no login\n");
        return 1;
    }
    std::vector<std::thread> pool;
    pool.emplace_back(writer, end);
    for (int i = 0; i < readers; ++i)
        pool.emplace_back(reader, end);
    for (int i = 0; i < streams; ++i)
        pool.emplace_back([end, i] {
            std::mt19937 rng(static_cast<unsigned>(i) * 7919u + 1u);
            while (Clock::now() < end)
                oneStream(rng);
        });
    for (std::thread& t : pool)
        t.join();
    printf("streams %ld (events read %ld), requests %ld, writes %ld\n", gCounts.streams.load(),
           gCounts.events.load(), gCounts.requests.load(), gCounts.writes.load());
    printf("failed handshakes %ld, failed answers %ld\n", gCounts.failedHandshakes.load(),
           gCounts.failedAnswers.load());
    SSL_CTX_free(gCtx);
    return gCounts.failedHandshakes || gCounts.failedAnswers ? 1 : 0;
}
