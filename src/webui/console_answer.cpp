// The web console's answers: the daemon's folder of console files, and the
// answer to a request for one (see console_files.h).  Every answer carries
// the headers that keep the console's pages to themselves: scripts, styles
// and connections of their own origin only, never in a frame, no sniffing
// of types, no referrer.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/log.h"
#include "webui/console_files.h"

namespace {

std::unique_ptr<WHttpConsoleIndex> gConsole;  // set at start-up, read-only after

const struct {
    const char* name;
    const char* value;
} kPageHeaders[] = {
    {"Content-Security-Policy",
     "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
     "connect-src 'self'; object-src 'none'; base-uri 'none'; form-action 'self'; "
     "frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"X-Frame-Options", "DENY"},
};

// The folder beside the program: `rel` from the folder of its file.
std::string besideProgram(const char* rel) {
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return "";
    std::string dir(self, static_cast<size_t>(n));
    return dir.substr(0, dir.rfind('/') + 1) + rel;
}

// Whether an If-None-Match list names `etag` (or is "*").
bool matches(const char* ifNoneMatch, const std::string& etag) {
    if (!ifNoneMatch)
        return false;
    std::string list = ifNoneMatch;
    return list.find('*') != std::string::npos || list.find(etag) != std::string::npos;
}

void send(CgHttpRequest* request, int status, const char* type, const char* body, size_t size,
          const WHttpConsoleFile* file) {
    CgHttpResponse* response = cg_http_response_new();
    cg_http_response_setstatuscode(response, status);
    for (const auto& h : kPageHeaders)
        cg_http_response_setheader(response, h.name, h.value);
    if (status == 405)
        cg_http_response_setheader(response, "Allow", "GET, HEAD");
    if (file) {
        cg_http_response_setheader(response, "ETag", file->etag.c_str());
        // Names do not change with their content: a browser asks again, and
        // an unchanged file costs an empty answer (304).
        cg_http_response_setheader(response, "Cache-Control", "no-cache");
    }
    if (status != 304) {
        cg_http_response_setheader(response, "Content-Type", type);
        cg_http_response_setcontent(response, body, size);
    }
    cg_http_request_postresponse(request, response);
    cg_http_response_delete(response);
}

void refuse(CgHttpRequest* request, int status, const char* text) {
    send(request, status, "text/plain; charset=utf-8", text, strlen(text), nullptr);
}

}  // namespace

void wHttpConsoleStart(void) {
    const char* named = getenv("WHTTPD_CONSOLE_DIR");
    for (const std::string& dir :
         {named ? std::string(named) : std::string(), besideProgram("../share/whttpd/console"),
          besideProgram("../console")}) {
        if (dir.empty() || !(gConsole = wHttpConsoleLoad(dir)))
            continue;
        WLOG(WLOG_INFO, WHTTPD_SRC, "web console: %zu files from %s\n", gConsole->files.size(),
             dir.c_str());
        return;
    }
    WLOG(WLOG_NOTICE, WHTTPD_SRC, "web console: no folder of its files\n");
}

void wHttpConsoleAnswer(CgHttpRequest* request) {
    const char* method = cg_http_request_getmethod(request);
    bool get = method && !strcmp(method, "GET"), head = method && !strcmp(method, "HEAD");
    if (!get && !head)
        return refuse(request, 405, "Method Not Allowed\n");
    const char* target = cg_http_request_geturi(request);
    const WHttpConsoleFile* file =
        gConsole && target ? wHttpConsoleLookup(*gConsole, target) : nullptr;
    if (!file)
        return refuse(request, 404, "Not Found\n");
    if (matches(cg_http_request_getheader(request, "If-None-Match"), file->etag))
        return send(request, 304, file->type, nullptr, 0, file);
    send(request, 200, file->type, file->data, file->size, file);
}
