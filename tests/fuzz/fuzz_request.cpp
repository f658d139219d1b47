// Raw bytes from the network as the HTTP adapter takes them: the parser with
// the daemon's limits, then the request record the listener sees (target,
// query parameters, cookies, headers, body), the TR181 path and
// "first_level_only", the body check of the value handlers, an event
// stream's watched paths and Last-Event-ID, and the web console's files: a
// target names one of the console's files exactly, or none.
#include <boost/beast/http.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "datamodel/path_parse.h"
#include "fuzz_common.h"
#include "http/cg_http_internal.h"
#include "base/json_util.h"
#include "events/event_text.h"
#include "webui/console_files.h"

namespace http = boost::beast::http;

namespace {

// A console folder of two files beside a secret, indexed once.
const WHttpConsoleIndex& consoleIndex() {
    static const std::unique_ptr<WHttpConsoleIndex> index = [] {
        std::string dir = fuzzDeviceRoot() + "/console";
        std::filesystem::create_directories(dir + "/js");
        FILE* f = fopen((dir + "/index.html").c_str(), "w");
        FILE* g = fopen((dir + "/js/app.js").c_str(), "w");
        FILE* secret = fopen((fuzzDeviceRoot() + "/secret.txt").c_str(), "w");
        if (!f || !g || !secret)
            abort();
        fputs("<!doctype html>", f);
        fputs("export {};", g);
        fputs("SECRET", secret);
        fclose(f);
        fclose(g);
        fclose(secret);
        std::unique_ptr<WHttpConsoleIndex> i = wHttpConsoleLoad(dir);
        if (!i || i->files.size() != 2)
            abort();
        return i;
    }();
    return *index;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const CgHttpLimits limits;
    http::request_parser<http::string_body> parser;
    parser.header_limit(static_cast<uint32_t>(limits.maxHeaderBytes));
    parser.body_limit(limits.maxBodyBytes);
    parser.eager(true);
    boost::beast::error_code ec;
    parser.put(boost::asio::buffer(data, size), ec);
    if (!ec && !parser.is_done())
        parser.put_eof(ec);
    if (ec || !parser.is_done())
        return 0;
    CgHttpRequest r;
    cgHttpRequestInit(r, parser.release(), "192.168.1.100", "192.168.1.1", 443);
    const char* names[] = {"sessionkey", "first_level_only", "device", "action"};
    for (const char* name : names)
        cg_http_request_getparam(&r, name);
    cg_http_request_getcookie(&r, "Session");
    cg_http_request_getcookie(&r, "Session");  // parsed once, found again
    cg_http_request_getheader(&r, "Content-Length");
    // An event stream's watched paths and the id it resumes from.
    std::vector<std::string> watched;
    for (size_t i = 0, n = cg_http_request_getparamcount(&r, "path"); i < n; ++i) {
        const char* p = cg_http_request_getparamat(&r, "path", i);  // nullptr: a NUL in it
        if (p && wHttpWatchPathWellFormed(p)) {
            fuzzRequireUtf8(p);
            watched.emplace_back(p);
        }
    }
    wHttpPathWatched(watched, r.uri);
    if (wHttpConsoleOwns(r.uri.c_str())) {
        const WHttpConsoleFile* file = wHttpConsoleLookup(consoleIndex(), r.uri);
        std::string_view path = std::string_view(r.uri).substr(0, r.uri.find('?'));
        if (file && path != "/" && path != "/ui/index.html" && path != "/ui/js/app.js")
            abort();  // a file that its target does not name
    }
    if (const char* last = cg_http_request_getheader(&r, "Last-Event-ID"))
        wHttpParseLastEventId(last);
    char path[256] = "";
    int firstLevelOnly = 0;
    if (wHttpParseTR181Path(&r, path, &firstLevelOnly) == 0)
        fuzzRequireUtf8(path);
    json_object* body = nullptr;
    if (wHttpParseTR181Object(&r, &body) == 0) {
        fuzzRequireUtf8(json_object_to_json_string(body));
        json_object_put(body);
    }
    return 0;
}
