// HTTPS for the stand-in cloud firmware service, over Boost.Beast.  A
// device downloads without verifying the peer but checks that the
// certificate names the host it asked, so a certificate made at start-up (an
// EC key, self-signed, one day, the service's names) is all it needs.
#include "simulator/fwcloud/fwcloud_server.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "base/platform.h"

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = boost::asio::ssl;
using tcp = net::ip::tcp;

namespace fwcloud {
namespace {

// The subjectAltName extension's text: each name as an IP address or a DNS
// name.
std::string altNames(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& n : names) {
        unsigned char addr[16];
        bool ip =
            inet_pton(AF_INET, n.c_str(), addr) == 1 || inet_pton(AF_INET6, n.c_str(), addr) == 1;
        text += (text.empty() ? "" : ",") + std::string(ip ? "IP:" : "DNS:") + n;
    }
    return text;
}

bool addAltNames(X509* cert, const std::vector<std::string>& names) {
    if (names.empty())
        return true;
    X509V3_CTX v3;
    X509V3_set_ctx_nodb(&v3);
    X509V3_set_ctx(&v3, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext =
        X509V3_EXT_conf_nid(nullptr, &v3, NID_subject_alt_name, altNames(names).c_str());
    bool ok = ext && X509_add_ext(cert, ext, -1) == 1;
    X509_EXTENSION_free(ext);
    return ok;
}

bool selfSigned(ssl::context& ctx, const std::vector<std::string>& names) {
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
    X509* cert = X509_new();
    bool ok = key && cert;
    if (ok) {
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
        X509_gmtime_adj(X509_getm_notBefore(cert), -60);
        X509_gmtime_adj(X509_getm_notAfter(cert), 86400);
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("fwcloud.localhost"), -1,
                                   -1, 0);
        X509_set_issuer_name(cert, name);
        ok = addAltNames(cert, names) && X509_set_pubkey(cert, key) == 1 &&
             X509_sign(cert, key, EVP_sha256()) > 0 &&
             SSL_CTX_use_certificate(ctx.native_handle(), cert) == 1 &&
             SSL_CTX_use_PrivateKey(ctx.native_handle(), key) == 1;
    }
    X509_free(cert);
    EVP_PKEY_free(key);
    return ok;
}

// Writes the header, then the body: whole, or a byte at a time for a slow
// answer (the peer giving up ends it).
void send(beast::ssl_stream<tcp::socket>& stream, const Answer& a, beast::error_code& ec) {
    http::response<http::empty_body> res{static_cast<http::status>(a.status), 11};
    res.set(http::field::server, "fwcloud");
    res.set(http::field::connection, "close");
    if (a.status != 204) {
        res.set(http::field::content_type, a.contentType);
        res.content_length(a.body.size());
    }
    http::response_serializer<http::empty_body> sr{res};
    http::write_header(stream, sr, ec);
    if (ec || a.status == 204)
        return;
    if (a.trickleMs <= 0) {
        net::write(stream, net::buffer(a.body), ec);
        return;
    }
    for (size_t i = 0; i < a.body.size() && !ec; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(a.trickleMs));
        net::write(stream, net::buffer(&a.body[i], 1), ec);
    }
}

void session(tcp::socket socket, ssl::context& ctx, const Handler& handler) {
    platformBlockStopSignals();
    beast::error_code ec;
    beast::ssl_stream<tcp::socket> stream(std::move(socket), ctx);
    stream.handshake(ssl::stream_base::server, ec);
    if (ec)
        return;
    beast::flat_buffer buffer;
    http::request_parser<http::empty_body> parser;
    parser.header_limit(16 * 1024);
    http::read(stream, buffer, parser, ec);
    if (ec)
        return;
    const auto& req = parser.get();
    Answer a = handler(std::string(req.method_string()), std::string(req.target()),
                       std::string(req[http::field::host]));
    send(stream, a, ec);
    stream.shutdown(ec);
}

}  // namespace

int serve(const std::string& address, int port, const std::vector<std::string>& names,
          const Handler& handler, const std::function<void(int)>& ready) {
    ssl::context ctx{ssl::context::tls_server};
    if (!selfSigned(ctx, names)) {
        fprintf(stderr, "fwcloud: cannot make a certificate\n");
        return 1;
    }
    net::io_context io;
    beast::error_code ec;
    tcp::endpoint ep{net::ip::make_address(address, ec), static_cast<unsigned short>(port)};
    tcp::acceptor acceptor{io};
    if (!ec)
        acceptor.open(ep.protocol(), ec);
    if (!ec)
        acceptor.set_option(net::socket_base::reuse_address(true), ec);
    if (!ec)
        acceptor.bind(ep, ec);
    if (!ec)
        acceptor.listen(net::socket_base::max_listen_connections, ec);
    if (ec) {
        fprintf(stderr, "fwcloud: cannot listen on %s port %d: %s\n", address.c_str(), port,
                ec.message().c_str());
        return 1;
    }
    ready(acceptor.local_endpoint().port());
    for (;;) {
        tcp::socket socket{io};
        acceptor.accept(socket, ec);
        if (ec)
            continue;
        std::thread(session, std::move(socket), std::ref(ctx), std::cref(handler)).detach();
    }
}

}  // namespace fwcloud
