// The HTTP server library over Boost.Beast and OpenSSL: the server, its
// accept loop and its threads.
//
// A few network threads each run an event loop of their own; the acceptor
// hands new connections to the loops in turn, and each connection
// (http_session.cpp) is a chain of asynchronous operations on its loop, so
// a silent, slow or half-open client holds a socket and a little memory but
// no thread.  Complete requests go to a bounded pool of small-stack worker
// threads that run the listener (quick ones run on the loop itself).
#include <sys/resource.h>

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "http/http_session.h"
#include "base/platform.h"
#include "device/wcfg.h"

namespace net = boost::asio;
using tcp = net::ip::tcp;

struct CgHttpServer {
    std::shared_ptr<HttpServerState> state = std::make_shared<HttpServerState>();
};

namespace {

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

void doAccept(const std::shared_ptr<HttpServerState>& st);

// Out of descriptors or buffers: try again shortly instead of spinning.
bool resourceShortage(const boost::system::error_code& ec) {
    return ec == net::error::no_descriptors || ec == net::error::no_buffer_space ||
           ec == net::error::no_memory || ec.value() == ENFILE;
}

void onAccept(const std::shared_ptr<HttpServerState>& st, boost::system::error_code ec,
              tcp::socket sock) {
    if (!st->running)
        return;
    if (ec) {
        if (ec == net::error::operation_aborted)
            return;
        if (resourceShortage(ec)) {
            st->acceptRetry->expires_after(std::chrono::milliseconds(100));
            st->acceptRetry->async_wait([st](boost::system::error_code e) {
                if (!e)
                    doAccept(st);
            });
            return;
        }
        doAccept(st);
        return;
    }
    boost::system::error_code e;
    tcp::endpoint remote = st->acceptPeer;  // told by accept itself
    tcp::endpoint local = sock.local_endpoint(e);
    if (!e) {
        auto session =
            std::make_shared<HttpSession>(st, std::move(sock), addressText(remote.address()),
                                          addressText(local.address()), local.port());
        session->start();
    }
    doAccept(st);
}

void doAccept(const std::shared_ptr<HttpServerState>& st) {
    // The acceptor's loop picks the next loop under no lock: only it accepts.
    net::io_context& loop = st->loops[st->nextLoop++ % st->loops.size()]->ioc;
    st->acceptor->async_accept(loop, st->acceptPeer,
                               [st](boost::system::error_code ec, tcp::socket sock) {
                                   onAccept(st, ec, std::move(sock));
                               });
}

// Every thread of the server: the stop signals go to the main thread, and
// the thread acts for nobody until a listener has identified a session.
void serverThreadInit() {
    platformBlockStopSignals();
    wcfgFeSetCaller(WCFG_CALLER_NONE);
}

void runIoThread(std::shared_ptr<HttpServerState> st, HttpIoLoop* loop) {
    serverThreadInit();
    loop->ioc.run();
    std::lock_guard<std::mutex> lock(st->threadsMutex);
    --st->ioThreads;
    st->threadsGone.notify_all();
}

const char kTls12Suites[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305";

bool configureTls(HttpServerState& st, const CgHttpSslSettings* settings) {
    namespace ssl = net::ssl;
    boost::system::error_code ec;
    ssl::context& ctx = st.sslCtx;
    ctx.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                    ssl::context::no_sslv3 | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 |
                    ssl::context::single_dh_use);
    // TLS 1.3, and TLS 1.2 only with an ephemeral key exchange (forward
    // secrecy) and an AEAD cipher: no static RSA, no CBC, no finite-field DH.
    SSL_CTX_set_min_proto_version(ctx.native_handle(), TLS1_2_VERSION);
    if (SSL_CTX_set_cipher_list(ctx.native_handle(), kTls12Suites) != 1)
        return false;
    ctx.use_certificate_chain_file(settings->certFile, ec);
    if (ec)
        return false;
    ctx.use_private_key_file(settings->keyFile, ssl::context::pem, ec);
    // An idle connection gives its TLS buffers back.
    SSL_CTX_set_mode(ctx.native_handle(), SSL_MODE_RELEASE_BUFFERS);
    // Resumption is by tickets, which the client keeps: no session is stored
    // here (nor looked up, nor swept from a cache every so many handshakes).
    SSL_CTX_set_session_cache_mode(ctx.native_handle(), SSL_SESS_CACHE_OFF);
    // One ticket per handshake (OpenSSL sends two): enough for a client to
    // come back once, and each costs the handshake an encryption.
    SSL_CTX_set_num_tickets(ctx.native_handle(), 1);
    return !ec;
}

}  // namespace

CgHttpServer* cg_http_server_new(void) {
    return new CgHttpServer;
}

void cg_http_server_setlimits(CgHttpServer* server, const CgHttpLimits& limits) {
    if (server && !server->state->running)
        server->state->limits = limits;
}

bool cg_http_server_open(CgHttpServer* server, int port, const char* bindAddr, int /*reserved*/,
                         bool useSsl, const CgHttpSslSettings* settings) {
    if (!server || !useSsl || !settings || !settings->certFile || !settings->keyFile)
        return false;
    HttpServerState& st = *server->state;
    if (!configureTls(st, settings))
        return false;
    boost::system::error_code ec;
    net::ip::address addr = net::ip::make_address(bindAddr ? bindAddr : "::", ec);
    if (ec)
        return false;
    net::io_context& first = st.loops.front()->ioc;
    auto acc = std::make_unique<tcp::acceptor>(first);
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
    st.acceptor = std::move(acc);
    st.acceptRetry = std::make_unique<net::steady_timer>(first);
    return true;
}

void cg_http_server_setlistener(CgHttpServer* server, CG_HTTP_LISTENER listener) {
    if (server)
        server->state->listener = listener;
}

void cg_http_server_setquick(CgHttpServer* server, CG_HTTP_QUICK quick) {
    if (server && !server->state->running)
        server->state->quick = quick;
}

bool cg_http_server_start(CgHttpServer* server) {
    if (!server || !server->state->acceptor || server->state->running)
        return false;
    std::shared_ptr<HttpServerState> st = server->state;
    const CgHttpLimits& lim = st->limits;
    st->conns.setLimits(lim.maxConnections, lim.maxPerAddress);
    WorkerPoolConfig pool;
    pool.minThreads = lim.minWorkers;
    pool.maxThreads = lim.maxWorkers;
    pool.maxQueued = lim.maxQueuedRequests;
    pool.stackBytes = lim.threadStackBytes;
    pool.threadInit = serverThreadInit;
    st->pool = std::make_unique<WorkerPool>(pool);
    st->streamPool = std::make_shared<CgHttpStreamPool>(lim.streamBytes);
    st->running = true;
    size_t wanted = lim.ioThreads > 0 ? static_cast<size_t>(lim.ioThreads) : 1;
    while (st->loops.size() < wanted)
        st->loops.push_back(std::make_unique<HttpIoLoop>());
    size_t started = 0;
    for (; started < st->loops.size(); ++started) {
        std::lock_guard<std::mutex> lock(st->threadsMutex);
        ++st->ioThreads;
        HttpIoLoop* loop = st->loops[started].get();
        if (!startSmallStackThread(lim.threadStackBytes, [st, loop] { runIoThread(st, loop); })) {
            --st->ioThreads;
            break;
        }
    }
    if (started == 0) {
        st->running = false;
        return false;
    }
    // Connections go only to loops whose thread runs; no thread holds the
    // others.
    st->loops.resize(started);
    // The acceptor is used on its loop only, the first accept included.
    net::post(st->loops.front()->ioc, [st] { doAccept(st); });
    return true;
}

bool cg_http_server_stop(CgHttpServer* server) {
    if (!server)
        return false;
    std::shared_ptr<HttpServerState> st = server->state;
    if (!st->running.exchange(false))
        return true;
    net::post(st->acceptor->get_executor(), [st] {
        boost::system::error_code ec;
        st->acceptor->close(ec);
        st->acceptRetry->cancel();
    });
    for (const auto& evict : st->conns.everyEvict())
        evict(true);
    // Listeners under way finish (their answers go nowhere); then the network
    // threads stop and whatever they left queued is run down here.
    st->pool->stop(3000);
    for (auto& loop : st->loops) {
        loop->work.reset();
        loop->ioc.stop();
    }
    std::unique_lock<std::mutex> lock(st->threadsMutex);
    st->threadsGone.wait_for(lock, std::chrono::seconds(3), [&] { return st->ioThreads == 0; });
    if (st->ioThreads == 0) {
        lock.unlock();
        for (auto& loop : st->loops) {
            loop->ioc.restart();
            loop->ioc.poll();
        }
    }
    return true;
}

void cg_http_server_delete(CgHttpServer* server) {
    delete server;
}
