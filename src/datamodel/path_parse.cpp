// Cutting the data-model path and body out of a value request.
#include "datamodel/path_parse.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "base/platform.h"
#include "base/json_util.h"
#include "base/utf8.h"
#include "device/wcfg.h"

namespace {

// Copies `from` up to the first "?" into `path`, at most 255 characters.
// A path that is not UTF-8 names nothing and is not echoed: false, "".
bool copyPath(const char* from, char* path) {
    char work[256];
    wos_strlcpy(work, from, sizeof work);
    if (char* q = strchr(work, '?'))
        *q = '\0';
    wos_strlcpy(path, work, 256);
    if (utf8Valid(path))
        return true;
    path[0] = '\0';
    return false;
}

}  // namespace

int wHttpParseTR181PathText(const char* uri, const char* firstLevelOnlyValue, char* path,
                            int* firstLevelOnly) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", "wHttpParseTR181Path");
    if (!uri)
        return WCFG_INVALID_OBJECT;
    if (const char* at = strstr(uri, "/Device.")) {
        bool text = copyPath(at + 1, path);
        size_t n = strlen(path);
        if (!text || n == 0 || path[n - 1] != '.')
            return WCFG_INVALID_OBJECT;
        if (firstLevelOnly) {
            *firstLevelOnly = 1;
            if (firstLevelOnlyValue && !strcasecmp(firstLevelOnlyValue, "false"))
                *firstLevelOnly = 0;
        }
        return 0;
    }
    if (const char* at = strstr(uri, "/MultiObjects")) {
        return copyPath(at + 1, path) ? 0 : WCFG_INVALID_OBJECT;
    }
    return WCFG_INVALID_OBJECT;
}

int wHttpParseTR181Path(CgHttpRequest* request, char* path, int* firstLevelOnly) {
    return wHttpParseTR181PathText(cg_http_request_geturi(request),
                                   cg_http_request_getparam(request, "first_level_only"), path,
                                   firstLevelOnly);
}

int wHttpParseTR181ObjectText(const char* contentLength, const char* body, json_object** out) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", "wHttpParseTR181Object");
    if (!contentLength || platformParseInt(contentLength) == 0 || !body || !strcmp(body, "[]") ||
        !strcmp(body, "{}") || !strcmp(body, "undefined"))
        return WCFG_INVALID_FORMAT;
    json_object* value = jsonParseUtf8(body);
    if (!value)
        return WCFG_INVALID_FORMAT;
    *out = value;
    return 0;
}

int wHttpParseTR181Object(CgHttpRequest* request, json_object** out) {
    return wHttpParseTR181ObjectText(cg_http_request_getheader(request, "Content-Length"),
                                     cg_http_request_getcontent(request), out);
}
