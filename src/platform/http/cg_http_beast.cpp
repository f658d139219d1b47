// The HTTP server library over Boost.Beast and OpenSSL.
//
// An accept thread hands every connection to a thread of its own, which does
// the TLS handshake and then reads requests, runs the listener and writes the
// answers the listener posts.  Each connection thread drives its own
// io_context: every operation is started asynchronously with a deadline and
// run to completion at once, so a slow or silent client can never hold a
// thread longer than the time-outs.
#include "platform/http/cg_http.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/platform.h"
#include "platform/store/wcfg.h"

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = boost::asio::ssl;
using tcp = net::ip::tcp;

namespace {

struct ServerState {
    CgHttpLimits limits;
    ssl::context sslCtx{ssl::context::tls_server};
    CG_HTTP_LISTENER listener = nullptr;
    std::atomic<bool> running{false};
    std::mutex m;
    std::condition_variable cv;
    int active = 0;
    std::set<int> fds;  // sockets of the open connections
};

using Stream = beast::ssl_stream<beast::tcp_stream>;

std::string percentDecode(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size() && isxdigit(static_cast<unsigned char>(s[i + 1])) &&
            isxdigit(static_cast<unsigned char>(s[i + 2]))) {
            out += static_cast<char>(std::stoi(std::string(s.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

std::string addressText(const net::ip::address& a) {
    if (a.is_v6()) {
        net::ip::address_v6 v6 = a.to_v6();
        if (v6.is_v4_mapped())
            return net::ip::make_address_v4(net::ip::v4_mapped, v6).to_string();
        v6.scope_id(0);
        return v6.to_string();
    }
    return a.to_string();
}

// Runs one asynchronous operation on the connection's io_context to its end
// or its deadline.
template <class Start>
beast::error_code runOp(net::io_context& ioc, Stream& stream, int timeoutSec, Start&& start) {
    beast::error_code result = net::error::would_block;
    beast::get_lowest_layer(stream).expires_after(std::chrono::seconds(timeoutSec));
    start([&result](beast::error_code ec, auto&&...) { result = ec; });
    ioc.restart();
    ioc.run();
    return result;
}

}  // namespace

struct CgHttpServer {
    std::shared_ptr<ServerState> state = std::make_shared<ServerState>();
    net::io_context acceptIoc;
    std::unique_ptr<tcp::acceptor> acceptor;
    std::thread acceptThread;
};

struct CgHttpRequest {
    net::io_context* ioc = nullptr;
    Stream* stream = nullptr;
    const CgHttpLimits* limits = nullptr;
    http::request<http::string_body> msg;
    std::string uri, method, remote, local;
    int localPort = 0;
    std::vector<std::pair<std::string, std::string>> params;
    std::map<std::string, std::string> headerCache;
    std::vector<std::pair<std::string, std::string>> cookies;
    bool cookiesParsed = false;
    void* userData = nullptr;
    bool answered = false;
    bool failed = false;
};

struct CgHttpResponse {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

namespace {

void parseQuery(CgHttpRequest& r) {
    size_t q = r.uri.find('?');
    if (q == std::string::npos)
        return;
    std::string_view rest(r.uri);
    rest.remove_prefix(q + 1);
    while (!rest.empty()) {
        size_t amp = rest.find('&');
        std::string_view pair = rest.substr(0, amp);
        size_t eq = pair.find('=');
        std::string name = percentDecode(pair.substr(0, eq));
        std::string value = eq == std::string_view::npos ? "" : percentDecode(pair.substr(eq + 1));
        if (!name.empty())
            r.params.emplace_back(std::move(name), std::move(value));
        if (amp == std::string_view::npos)
            break;
        rest.remove_prefix(amp + 1);
    }
}

void sendPlainError(net::io_context& ioc, Stream& stream, const CgHttpLimits& limits,
                    http::status status) {
    http::response<http::string_body> res{status, 11};
    res.set(http::field::content_type, "text/plain");
    res.set(http::field::connection, "close");
    res.body() = std::string(http::obsolete_reason(status)) + "\n";
    res.prepare_payload();
    runOp(ioc, stream, limits.writeTimeoutSec,
          [&](auto&& h) { http::async_write(stream, res, std::move(h)); });
}

void serveConnection(std::shared_ptr<ServerState> st, std::unique_ptr<net::io_context> ioc,
                     tcp::socket sock) {
    platformBlockStopSignals();
    // A thread that serves a network client acts for nobody until the
    // listener has identified the client's session.
    wcfgFeSetCaller(WCFG_CALLER_NONE);
    const CgHttpLimits& lim = st->limits;
    beast::error_code ec;
    sock.set_option(tcp::no_delay(true), ec);
    std::string remote, local;
    int localPort = 0;
    {
        tcp::endpoint re = sock.remote_endpoint(ec);
        if (!ec)
            remote = addressText(re.address());
        tcp::endpoint le = sock.local_endpoint(ec);
        if (!ec)
            local = addressText(le.address()), localPort = le.port();
    }
    int fd = sock.native_handle();
    Stream stream(std::move(sock), st->sslCtx);
    if (!runOp(*ioc, stream, lim.handshakeTimeoutSec,
               [&](auto&& h) { stream.async_handshake(ssl::stream_base::server, std::move(h)); })) {
        beast::flat_buffer buffer;
        bool first = true;
        while (st->running) {
            http::request_parser<http::string_body> parser;
            parser.header_limit(static_cast<uint32_t>(lim.maxHeaderBytes));
            parser.body_limit(lim.maxBodyBytes);
            // The idle time-out covers the wait for the next request on a
            // kept-alive connection; the read time-out a request in progress.
            int timeout = (first || buffer.size()) ? lim.readTimeoutSec : lim.idleTimeoutSec;
            ec = runOp(*ioc, stream, timeout,
                       [&](auto&& h) { http::async_read(stream, buffer, parser, std::move(h)); });
            first = false;
            if (ec == http::error::header_limit) {
                sendPlainError(*ioc, stream, lim, http::status::request_header_fields_too_large);
                break;
            }
            if (ec == http::error::body_limit) {
                sendPlainError(*ioc, stream, lim, http::status::payload_too_large);
                break;
            }
            if (ec) {
                bool idle = ec == http::error::end_of_stream || ec == beast::error::timeout ||
                            ec == net::error::eof || ec == ssl::error::stream_truncated ||
                            ec == net::error::connection_reset;
                if (!idle && parser.got_some())
                    sendPlainError(*ioc, stream, lim, http::status::bad_request);
                break;
            }
            CgHttpRequest req;
            req.ioc = ioc.get();
            req.stream = &stream;
            req.limits = &lim;
            req.msg = parser.release();
            req.uri = std::string(req.msg.target());
            req.method = std::string(req.msg.method_string());
            req.remote = remote;
            req.local = local;
            req.localPort = localPort;
            parseQuery(req);
            if (st->listener)
                st->listener(&req);
            // A request the listener left unanswered ends the connection.
            if (!req.answered || req.failed || !req.msg.keep_alive())
                break;
        }
        runOp(*ioc, stream, 2, [&](auto&& h) { stream.async_shutdown(std::move(h)); });
    }
    {
        std::lock_guard<std::mutex> lock(st->m);
        st->fds.erase(fd);
    }
    beast::get_lowest_layer(stream).socket().close(ec);
    std::lock_guard<std::mutex> lock(st->m);
    --st->active;
    st->cv.notify_all();
}

void acceptLoop(CgHttpServer* srv) {
    platformBlockStopSignals();
    std::shared_ptr<ServerState> st = srv->state;
    int lfd = srv->acceptor->native_handle();
    while (st->running) {
        {
            std::unique_lock<std::mutex> lock(st->m);
            st->cv.wait_for(lock, std::chrono::milliseconds(200),
                            [&] { return st->active < st->limits.maxConnections || !st->running; });
            if (st->active >= st->limits.maxConnections)
                continue;
        }
        pollfd p{lfd, POLLIN, 0};
        if (poll(&p, 1, 200) <= 0)
            continue;
        auto ioc = std::make_unique<net::io_context>(1);
        tcp::socket sock(*ioc);
        beast::error_code ec;
        srv->acceptor->accept(sock, ec);
        if (ec)
            continue;
        {
            std::lock_guard<std::mutex> lock(st->m);
            ++st->active;
            st->fds.insert(sock.native_handle());
        }
        try {
            std::thread(serveConnection, st, std::move(ioc), std::move(sock)).detach();
        } catch (const std::exception&) {
            std::lock_guard<std::mutex> lock(st->m);
            --st->active;
        }
    }
}

template <class Message>
void fillHeaders(Message& m, const CgHttpResponse& res) {
    for (const auto& [name, value] : res.headers)
        m.insert(name, value);
}

}  // namespace

CgHttpServer* cg_http_server_new(void) {
    return new CgHttpServer;
}

void cg_http_server_setlimits(CgHttpServer* server, const CgHttpLimits& limits) {
    if (server)
        server->state->limits = limits;
}

bool cg_http_server_open(CgHttpServer* server, int port, const char* bindAddr, int /*reserved*/,
                         bool useSsl, const CgHttpSslSettings* settings) {
    if (!server || !useSsl || !settings || !settings->certFile || !settings->keyFile)
        return false;
    beast::error_code ec;
    ssl::context& ctx = server->state->sslCtx;
    ctx.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                    ssl::context::no_sslv3 | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 |
                    ssl::context::single_dh_use);
    ctx.use_certificate_chain_file(settings->certFile, ec);
    if (ec)
        return false;
    ctx.use_private_key_file(settings->keyFile, ssl::context::pem, ec);
    if (ec)
        return false;
    net::ip::address addr = net::ip::make_address(bindAddr ? bindAddr : "::", ec);
    if (ec)
        return false;
    auto acc = std::make_unique<tcp::acceptor>(server->acceptIoc);
    tcp::endpoint ep(addr, static_cast<unsigned short>(port));
    acc->open(ep.protocol(), ec);
    if (ec)
        return false;
    if (addr.is_v6())
        acc->set_option(net::ip::v6_only(false), ec);
    acc->set_option(net::socket_base::reuse_address(true), ec);
    acc->bind(ep, ec);
    if (ec)
        return false;
    acc->listen(net::socket_base::max_listen_connections, ec);
    if (ec)
        return false;
    acc->non_blocking(true, ec);
    server->acceptor = std::move(acc);
    return true;
}

void cg_http_server_setlistener(CgHttpServer* server, CG_HTTP_LISTENER listener) {
    if (server)
        server->state->listener = listener;
}

bool cg_http_server_start(CgHttpServer* server) {
    if (!server || !server->acceptor || server->state->running)
        return false;
    server->state->running = true;
    try {
        server->acceptThread = std::thread(acceptLoop, server);
    } catch (const std::exception&) {
        server->state->running = false;
        return false;
    }
    return true;
}

bool cg_http_server_stop(CgHttpServer* server) {
    if (!server)
        return false;
    std::shared_ptr<ServerState> st = server->state;
    st->running = false;
    st->cv.notify_all();
    if (server->acceptThread.joinable())
        server->acceptThread.join();
    beast::error_code ec;
    if (server->acceptor)
        server->acceptor->close(ec);
    std::unique_lock<std::mutex> lock(st->m);
    for (int fd : st->fds)
        ::shutdown(fd, SHUT_RDWR);
    st->cv.wait_for(lock, std::chrono::seconds(3), [&] { return st->active == 0; });
    return true;
}

void cg_http_server_delete(CgHttpServer* server) {
    delete server;
}

const char* cg_http_request_geturi(CgHttpRequest* r) {
    return r ? r->uri.c_str() : nullptr;
}
const char* cg_http_request_getmethod(CgHttpRequest* r) {
    return r ? r->method.c_str() : nullptr;
}

const char* cg_http_request_getparam(CgHttpRequest* r, const char* name) {
    if (!r || !name)
        return nullptr;
    for (const auto& [n, v] : r->params)
        if (n == name)
            return v.c_str();
    return nullptr;
}

const char* cg_http_request_getheader(CgHttpRequest* r, const char* name) {
    if (!r || !name)
        return nullptr;
    auto it = r->msg.find(name);
    if (it == r->msg.end())
        return nullptr;
    auto [pos, inserted] = r->headerCache.emplace(name, std::string(it->value()));
    if (!inserted)
        pos->second = std::string(it->value());
    return pos->second.c_str();
}

const char* cg_http_request_getcookie(CgHttpRequest* r, const char* name) {
    if (!r || !name)
        return nullptr;
    if (!r->cookiesParsed) {
        r->cookiesParsed = true;
        for (auto it = r->msg.find(http::field::cookie);
             it != r->msg.end() && it->name() == http::field::cookie; ++it) {
            std::string_view v(it->value().data(), it->value().size());
            while (!v.empty()) {
                size_t semi = v.find(';');
                std::string_view item = v.substr(0, semi);
                while (!item.empty() && item.front() == ' ')
                    item.remove_prefix(1);
                while (!item.empty() && item.back() == ' ')
                    item.remove_suffix(1);
                size_t eq = item.find('=');
                if (eq != std::string_view::npos && eq > 0) {
                    std::string_view val = item.substr(eq + 1);
                    if (val.size() >= 2 && val.front() == '"' && val.back() == '"')
                        val = val.substr(1, val.size() - 2);
                    r->cookies.emplace_back(std::string(item.substr(0, eq)), std::string(val));
                }
                if (semi == std::string_view::npos)
                    break;
                v.remove_prefix(semi + 1);
            }
        }
    }
    for (const auto& [n, v] : r->cookies)
        if (n == name)
            return v.c_str();
    return nullptr;
}

const char* cg_http_request_getcontent(CgHttpRequest* r) {
    return (r && !r->msg.body().empty()) ? r->msg.body().c_str() : nullptr;
}

size_t cg_http_request_getcontentlength(CgHttpRequest* r) {
    return r ? r->msg.body().size() : 0;
}
const char* cg_http_request_getremoteaddress(CgHttpRequest* r) {
    return r ? r->remote.c_str() : "";
}
const char* cg_http_request_getlocaladdress(CgHttpRequest* r) {
    return r ? r->local.c_str() : "";
}
int cg_http_request_getlocalport(CgHttpRequest* r) {
    return r ? r->localPort : 0;
}

void cg_http_request_setuserdata(CgHttpRequest* r, void* data) {
    if (r)
        r->userData = data;
}
void* cg_http_request_getuserdata(CgHttpRequest* r) {
    return r ? r->userData : nullptr;
}

CgHttpResponse* cg_http_response_new(void) {
    return new CgHttpResponse;
}
void cg_http_response_delete(CgHttpResponse* res) {
    delete res;
}

void cg_http_response_setstatuscode(CgHttpResponse* res, int code) {
    if (res)
        res->status = code;
}
int cg_http_response_getstatuscode(CgHttpResponse* res) {
    return res ? res->status : 0;
}

void cg_http_response_setheader(CgHttpResponse* res, const char* name, const char* value) {
    if (!res || !name || !value)
        return;
    for (auto it = res->headers.begin(); it != res->headers.end();) {
        if (beast::iequals(it->first, name))
            it = res->headers.erase(it);
        else
            ++it;
    }
    res->headers.emplace_back(name, value);
}

void cg_http_response_addheader(CgHttpResponse* res, const char* name, const char* value) {
    if (res && name && value)
        res->headers.emplace_back(name, value);
}

void cg_http_response_setcontent(CgHttpResponse* res, const char* data, size_t length) {
    if (res)
        res->body.assign(data ? data : "", data ? length : 0);
}

bool cg_http_request_postresponse(CgHttpRequest* r, CgHttpResponse* res) {
    if (!r || !res || r->failed)
        return false;
    http::response<http::string_body> m{static_cast<http::status>(res->status), 11};
    fillHeaders(m, *res);
    m.body() = res->body;
    if (!r->msg.keep_alive())
        m.set(http::field::connection, "close");
    r->answered = true;
    beast::error_code ec = runOp(*r->ioc, *r->stream, r->limits->writeTimeoutSec,
                                 [&](auto&& h) { http::async_write(*r->stream, m, std::move(h)); });
    if (ec)
        r->failed = true;
    return !ec;
}

bool cg_http_request_postheader(CgHttpRequest* r, CgHttpResponse* res) {
    if (!r || !res || r->failed)
        return false;
    http::response<http::empty_body> m{static_cast<http::status>(res->status), 11};
    fillHeaders(m, *res);
    if (!r->msg.keep_alive())
        m.set(http::field::connection, "close");
    r->answered = true;
    http::response_serializer<http::empty_body> sr{m};
    beast::error_code ec = runOp(*r->ioc, *r->stream, r->limits->writeTimeoutSec, [&](auto&& h) {
        http::async_write_header(*r->stream, sr, std::move(h));
    });
    if (ec)
        r->failed = true;
    return !ec;
}

bool cg_http_request_postchunkeddata(CgHttpRequest* r, const char* data, size_t length) {
    if (!r || r->failed || !data || !length)
        return false;
    beast::error_code ec = runOp(*r->ioc, *r->stream, r->limits->writeTimeoutSec, [&](auto&& h) {
        net::async_write(*r->stream, http::make_chunk(net::buffer(data, length)), std::move(h));
    });
    if (ec)
        r->failed = true;
    return !ec;
}

bool cg_http_request_postlastchunk(CgHttpRequest* r) {
    if (!r || r->failed)
        return false;
    beast::error_code ec = runOp(*r->ioc, *r->stream, r->limits->writeTimeoutSec, [&](auto&& h) {
        net::async_write(*r->stream, http::make_chunk_last(), std::move(h));
    });
    if (ec)
        r->failed = true;
    return !ec;
}
