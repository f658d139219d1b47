// The listener's view of a request and its answer: accessors of the request
// record, the response record, and the post functions, which format the
// answer and hand its bytes to the connection.  Nothing here waits for the
// network: the connection writes on its own thread, so a listener that
// answers while holding a lock never holds it for a slow reader.
#include <boost/beast/core/string.hpp>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "http/cg_http_internal.h"
#include "http/http_stream.h"

namespace http = boost::beast::http;

void cgHttpRequestInit(CgHttpRequest& r, http::request<http::string_body>&& msg,
                       const std::string& remote, const std::string& local, int localPort) {
    r.msg = std::move(msg);
    r.uri = std::string(r.msg.target());
    r.method = std::string(r.msg.method_string());
    r.remote = remote;
    r.local = local;
    r.localPort = localPort;
    r.params = httpParseQuery(r.uri);
}

const char* cg_http_request_geturi(CgHttpRequest* r) {
    return r ? r->uri.c_str() : nullptr;
}
const char* cg_http_request_getmethod(CgHttpRequest* r) {
    return r ? r->method.c_str() : nullptr;
}

const char* cg_http_request_getparam(CgHttpRequest* r, const char* name) {
    return (r && name) ? httpFindPair(r->params, name) : nullptr;
}

size_t cg_http_request_getparamcount(CgHttpRequest* r, const char* name) {
    size_t n = 0;
    if (r && name)
        for (const auto& [k, v] : r->params)
            n += k == name;
    return n;
}

const char* cg_http_request_getparamat(CgHttpRequest* r, const char* name, size_t index) {
    if (!r || !name)
        return nullptr;
    for (const auto& [k, v] : r->params)
        if (k == name && index-- == 0)
            return v.find('\0') == std::string::npos ? v.c_str() : nullptr;
    return nullptr;
}

const char* cg_http_request_getheader(CgHttpRequest* r, const char* name) {
    if (!r || !name)
        return nullptr;
    auto it = r->msg.find(name);
    if (it == r->msg.end())
        return nullptr;
    for (auto& [n, v] : r->headerCache)
        if (boost::beast::iequals(n, name))
            return v.c_str();
    r->headerCache.emplace_back(name, std::string(it->value()));
    return r->headerCache.back().second.c_str();
}

const char* cg_http_request_getcookie(CgHttpRequest* r, const char* name) {
    if (!r || !name)
        return nullptr;
    if (!r->cookiesParsed) {
        r->cookiesParsed = true;
        for (auto it = r->msg.find(http::field::cookie);
             it != r->msg.end() && it->name() == http::field::cookie; ++it)
            httpParseCookies(std::string_view(it->value().data(), it->value().size()), r->cookies);
    }
    return httpFindPair(r->cookies, name);
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

namespace {

// A header line ends at CR or LF: a name or value holding one would let its
// text start a header (or an answer) of its own.
bool headerText(const char* name, const char* value) {
    return name && value && !strpbrk(name, "\r\n") && !strpbrk(value, "\r\n");
}

}  // namespace

void cg_http_response_setheader(CgHttpResponse* res, const char* name, const char* value) {
    if (!res || !headerText(name, value))
        return;
    std::erase_if(res->headers,
                  [&](const auto& h) { return boost::beast::iequals(h.first, name); });
    res->headers.emplace_back(name, value);
}

void cg_http_response_addheader(CgHttpResponse* res, const char* name, const char* value) {
    if (res && headerText(name, value))
        res->headers.emplace_back(name, value);
}

void cg_http_response_setcontent(CgHttpResponse* res, const char* data, size_t length) {
    if (res)
        res->body.assign(data ? data : "", data ? length : 0);
}

namespace {

// Status line and headers.  A whole answer carries the length of its body
// (whatever the listener set); a chunked one the listener's own headers.
std::string headText(const CgHttpRequest& r, const CgHttpResponse& res, const size_t* bodyLength) {
    int status = (res.status >= 100 && res.status <= 999) ? res.status : 500;
    http::response<http::empty_body> m{static_cast<http::status>(status), 11};
    for (const auto& [name, value] : res.headers)
        if (!bodyLength || !boost::beast::iequals(name, "Content-Length"))
            m.insert(name, value);
    if (bodyLength)
        m.set(http::field::content_length, std::to_string(*bodyLength));
    if (!r.msg.keep_alive())
        m.set(http::field::connection, "close");
    std::ostringstream os;
    os << m.base();
    return std::move(os).str();
}

bool usable(CgHttpRequest* r) {
    return r && r->output && !r->output->failed();
}

// The answer to HEAD has the headers of the answer to GET and no body.
bool headOnly(const CgHttpRequest* r) {
    return r->msg.method() == http::verb::head;
}

}  // namespace

bool cg_http_request_postresponse(CgHttpRequest* r, CgHttpResponse* res) {
    if (!usable(r) || !res)
        return false;
    size_t length = res->body.size();
    std::string bytes = headText(*r, *res, &length);
    if (!headOnly(r))
        bytes += res->body;
    r->answered = true;
    r->output->send(std::move(bytes));
    return true;
}

bool cg_http_request_postheader(CgHttpRequest* r, CgHttpResponse* res) {
    if (!usable(r) || !res)
        return false;
    r->answered = true;
    r->output->send(headText(*r, *res, nullptr));
    return true;
}

bool cg_http_request_postchunkeddata(CgHttpRequest* r, const char* data, size_t length) {
    if (!usable(r) || !data || !length)
        return false;
    if (headOnly(r))
        return true;
    char size[24];
    int n = snprintf(size, sizeof size, "%zx\r\n", length);
    std::string bytes(size, static_cast<size_t>(n));
    bytes.append(data, length);
    bytes += "\r\n";
    r->output->send(std::move(bytes));
    return true;
}

bool cg_http_request_postlastchunk(CgHttpRequest* r) {
    if (!usable(r))
        return false;
    if (headOnly(r))
        return true;
    r->output->send("0\r\n\r\n");
    return true;
}

std::shared_ptr<CgHttpStream> cg_http_request_openstream(CgHttpRequest* r, CgHttpResponse* res,
                                                         const CgHttpStreamLimits& limits,
                                                         std::function<void()> onClose) {
    if (!usable(r) || !res || r->answered)
        return nullptr;
    // HTTP/1.1 clients get chunks; an HTTP/1.0 one the bytes up to the close.
    bool chunked = r->msg.version() >= 11;
    CgHttpResponse head = *res;
    std::erase_if(head.headers, [](const auto& h) {
        return boost::beast::iequals(h.first, "Content-Length") ||
               boost::beast::iequals(h.first, "Transfer-Encoding");
    });
    head.headers.emplace_back(chunked ? "Transfer-Encoding" : "Connection",
                              chunked ? "chunked" : "close");
    r->answered = true;
    return r->output->openStream(headText(*r, head, nullptr), limits, chunked, std::move(onClose));
}

CgHttpPush cg_http_stream_push(CgHttpStream* stream, std::string_view data) {
    return stream ? stream->push(data) : CgHttpPush::Closed;
}

void cg_http_stream_replace(CgHttpStream* stream, std::string_view data) {
    if (stream)
        stream->replace(data);
}

void cg_http_stream_end(CgHttpStream* stream, std::string_view data) {
    if (stream)
        stream->end(data);
}

bool cg_http_stream_closed(const CgHttpStream* stream) {
    return !stream || stream->closed();
}
