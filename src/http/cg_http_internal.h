// Inside the HTTP adapter: the request and response records that the
// listener sees through cg_http.h, and the connection's output side that
// the post functions hand their bytes to.
#pragma once

#include <boost/beast/http.hpp>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "http/cg_http.h"
#include "http/http_text.h"

// What a request's connection offers the listener's thread: bytes to send
// (queued; the connection writes them on its own thread) and whether the
// connection has failed.
class HttpOutput {
  public:
    virtual ~HttpOutput() = default;
    virtual void send(std::string bytes) = 0;
    virtual bool failed() const = 0;
    // Sends `head` and keeps the connection for a stream (http_stream.h).
    virtual std::shared_ptr<CgHttpStream> openStream(std::string head,
                                                     const CgHttpStreamLimits& limits, bool chunked,
                                                     std::function<void()> onClose) = 0;
};

struct CgHttpRequest {
    boost::beast::http::request<boost::beast::http::string_body> msg;
    std::string uri, method, remote, local;
    int localPort = 0;
    HttpPairs params;
    // Values handed out stay where they are (a deque does not move them).
    std::deque<std::pair<std::string, std::string>> headerCache;
    HttpPairs cookies;
    bool cookiesParsed = false;
    void* userData = nullptr;
    bool answered = false;
    HttpOutput* output = nullptr;
};

struct CgHttpResponse {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

// Fills a request record from a parsed message and the connection's
// addresses.
void cgHttpRequestInit(CgHttpRequest& r,
                       boost::beast::http::request<boost::beast::http::string_body>&& msg,
                       const std::string& remote, const std::string& local, int localPort);
