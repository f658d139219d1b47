// HTTP server library of the platform: an HTTPS server that runs a listener
// for every request.  Connections are served asynchronously (an idle one
// holds no thread); listeners run on a bounded pool of worker threads.  The implementation lives in
// cg_http_beast.cpp; nothing else sees the library beneath it.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

struct CgHttpServer;
struct CgHttpRequest;
struct CgHttpResponse;

// SSL settings: the certificate and private-key files (PEM); the other fields
// stay zero.
struct CgHttpSslSettings {
    const char* certFile;
    const char* keyFile;
    const char* caFile;
    int verifyPeer;
    int reserved;
};

typedef void (*CG_HTTP_LISTENER)(CgHttpRequest* request);

// Limits of the server, set by its user before the server starts.  Over a
// limit the server answers as HTTP prescribes (408 a request not complete in
// time, 413 a body too large, 431 headers too large, 503 no worker free) or
// closes the connection; it never waits on a client.
struct CgHttpLimits {
    int maxConnections = 256;        // open connections (the longest-waiting idle one yields)
    int maxPerAddress = 16;          // open connections of one client (IPv6: its /64)
    int handshakeTimeoutMs = 10000;  // from the accept to the end of the TLS handshake
    int requestTimeoutMs = 15000;    // a request's first byte to its last
    int idleTimeoutMs = 30000;       // waiting for the next request
    int writeTimeoutMs = 30000;      // one piece of an answer
    size_t maxHeaderBytes = 16 * 1024;
    size_t maxBodyBytes = 64 * 1024;
    int ioThreads = 2;   // threads of the network side (TLS, parsing)
    int minWorkers = 2;  // threads that run the listener
    int maxWorkers = 16;
    int maxQueuedRequests = 64;  // complete requests waiting for a worker
    size_t threadStackBytes = 256 * 1024;
    // Open-ended answers (streams): a client that acknowledges nothing for
    // this long (a phone asleep or gone from the network) is dropped by the
    // kernel; and the bytes that all streams' queues may hold together.
    int streamDeadMs = 45000;
    size_t streamBytes = 1024 * 1024;
};

CgHttpServer* cg_http_server_new(void);
void cg_http_server_setlimits(CgHttpServer* server, const CgHttpLimits& limits);
// Opens the listening socket (dual stack for "::") with TLS when `ssl` is on.
// Returns false when the port or the certificate files cannot be used.
bool cg_http_server_open(CgHttpServer* server, int port, const char* bindAddr, int reserved,
                         bool ssl, const CgHttpSslSettings* settings);
void cg_http_server_setlistener(CgHttpServer* server, CG_HTTP_LISTENER listener);
// Requests that `quick` accepts run the listener on the network thread that
// read them, without the hand-over to a worker and back: for requests that
// only compute their answer (never wait for a lock held long, a file, a
// process or another service), so that no other connection of that thread
// waits behind them.  Set before the server starts.
typedef bool (*CG_HTTP_QUICK)(CgHttpRequest* request);
void cg_http_server_setquick(CgHttpServer* server, CG_HTTP_QUICK quick);
bool cg_http_server_start(CgHttpServer* server);
bool cg_http_server_stop(CgHttpServer* server);
void cg_http_server_delete(CgHttpServer* server);

// The request URI as received, path and query, without any decoding.
const char* cg_http_request_geturi(CgHttpRequest* request);
const char* cg_http_request_getmethod(CgHttpRequest* request);
// A query parameter by name (percent-decoded; the first of repeated names);
// nullptr when absent.
const char* cg_http_request_getparam(CgHttpRequest* request, const char* name);
// Every value of a repeated query parameter, in order (percent-decoded); a
// value whose decoding holds a NUL byte is given as nullptr, so that no
// reader takes a part of it for the whole.
size_t cg_http_request_getparamcount(CgHttpRequest* request, const char* name);
const char* cg_http_request_getparamat(CgHttpRequest* request, const char* name, size_t index);
// A header value by name (case-insensitive); nullptr when absent.
const char* cg_http_request_getheader(CgHttpRequest* request, const char* name);
// A cookie of the "Cookie" header by name; nullptr when absent.
const char* cg_http_request_getcookie(CgHttpRequest* request, const char* name);
// The body as NUL-terminated text; nullptr when there is none.
const char* cg_http_request_getcontent(CgHttpRequest* request);
size_t cg_http_request_getcontentlength(CgHttpRequest* request);
// Addresses of the connection as text: IPv4 callers as dotted quads, IPv6
// without brackets and zone; never nullptr ("" without a request).
const char* cg_http_request_getremoteaddress(CgHttpRequest* request);
const char* cg_http_request_getlocaladdress(CgHttpRequest* request);
int cg_http_request_getlocalport(CgHttpRequest* request);
// Per-request data of the listener.
void cg_http_request_setuserdata(CgHttpRequest* request, void* data);
void* cg_http_request_getuserdata(CgHttpRequest* request);

CgHttpResponse* cg_http_response_new(void);
void cg_http_response_delete(CgHttpResponse* response);
void cg_http_response_setstatuscode(CgHttpResponse* response, int code);
int cg_http_response_getstatuscode(CgHttpResponse* response);
// Sets a header, replacing any value it had.
void cg_http_response_setheader(CgHttpResponse* response, const char* name, const char* value);
// Adds a further value of a header (Set-Cookie).
void cg_http_response_addheader(CgHttpResponse* response, const char* name, const char* value);
void cg_http_response_setcontent(CgHttpResponse* response, const char* data, size_t length);

// Sends status line, headers and body.
bool cg_http_request_postresponse(CgHttpRequest* request, CgHttpResponse* response);
// Chunked answers: status line and headers, then chunks, then the last chunk.
bool cg_http_request_postheader(CgHttpRequest* request, CgHttpResponse* response);
bool cg_http_request_postchunkeddata(CgHttpRequest* request, const char* data, size_t length);
bool cg_http_request_postlastchunk(CgHttpRequest* request);

// Open-ended answers (server-sent events).  Instead of an answer the listener
// opens a stream: the status line and `response`'s headers go out at once,
// and the connection stays with the stream once the listener returns,
// holding a socket but no thread.  Pieces pushed from any thread wait in the
// stream's bounded queue until the connection writes them; each write has
// the write time limit, and a client that does not read is closed.
// `onClose` runs once, on a network thread, when the connection closes for
// any reason.  nullptr when the connection has already failed.
struct CgHttpStream;
struct CgHttpStreamLimits {
    size_t maxPieces = 256;        // pieces waiting
    size_t maxBytes = 256 * 1024;  // their bytes, with the piece being written
    // Of those bytes, what the stream may always hold; beyond it, bytes come
    // from the server's pool for all streams (CgHttpLimits::streamBytes), and
    // a piece that does not fit there is Full as well.
    size_t reserveBytes = 16 * 1024;
};
enum class CgHttpPush {
    Queued,
    Dropped,  // a replacement (replace) has not been taken yet: the piece is lost with the rest
    Full,     // the queue is full: nothing was queued
    Closed,   // the connection is gone or the stream ended
};
std::shared_ptr<CgHttpStream> cg_http_request_openstream(CgHttpRequest* request,
                                                         CgHttpResponse* response,
                                                         const CgHttpStreamLimits& limits,
                                                         std::function<void()> onClose);
CgHttpPush cg_http_stream_push(CgHttpStream* stream, std::string_view data);
// Drops every queued piece, queues `data` instead and drops what is pushed
// until the connection has taken it (a client that fell behind is told once
// that it lost pieces).
void cg_http_stream_replace(CgHttpStream* stream, std::string_view data);
// Queues `data` as the last piece; the connection closes once it is out.
void cg_http_stream_end(CgHttpStream* stream, std::string_view data);
bool cg_http_stream_closed(const CgHttpStream* stream);
