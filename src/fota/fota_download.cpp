// The firmware download routine shared by the check and the upgrade: one
// libcurl transfer into a device file, its outcome mapped to an HTTP-like
// result.
//
// The cloud's certificate is not verified (the device may not know the
// time or the roots yet); the image check of the configuration service is
// what stands between a download and the flash.  Only http and https are
// followed: a configured or served URL never reaches local files.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "base/platform.h"
#include "fota/fota.h"
#include "fota/fota_curl.h"

namespace {

// Transfer limits in platform seconds (tests shorten a platform second).
const long kConnectSeconds = 20;
const long kLowSpeedSeconds = 35;
const long kLowSpeedBytes = 10;

struct Sink {
    FILE* file;
    long long left;  // bytes the transfer may still write
};

// Writes what arrives; a transfer that passes its size limit is ended
// (curl sees a short write), whether or not the server announced a length.
size_t writeToFile(char* data, size_t size, size_t count, void* sinkPtr) {
    Sink* sink = static_cast<Sink*>(sinkPtr);
    long long bytes = static_cast<long long>(size * count);
    if (bytes > sink->left)
        return 0;
    sink->left -= bytes;
    return fwrite(data, size, count, sink->file) * size;
}

// The destination, never through a symbolic link planted in its place.
FILE* openDestination(const std::string& file) {
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        return nullptr;
    FILE* f = fdopen(fd, "wb");
    if (!f)
        close(fd);
    return f;
}

void setOptions(const FotaCurl& api, CURL* curl, const char* url, Sink* sink,
                const FotaLimits& limits) {
    long second = platformSecondMs();
    api.easySetopt(curl, CURLOPT_URL, url);
    api.easySetopt(curl, CURLOPT_WRITEDATA, sink);
    api.easySetopt(curl, CURLOPT_WRITEFUNCTION, writeToFile);
    api.easySetopt(curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(limits.maxBytes));
    // Whole transfer and connection (with its TLS handshake): never under ten
    // real seconds, however short a platform second is; a slow CPU needs
    // real time for the handshake.
    api.easySetopt(curl, CURLOPT_TIMEOUT_MS, std::max(10000L, limits.maxSeconds * second));
    api.easySetopt(curl, CURLOPT_CONNECTTIMEOUT_MS, std::max(10000L, kConnectSeconds * second));
    // curl counts the low-speed time in whole seconds.
    api.easySetopt(curl, CURLOPT_LOW_SPEED_TIME,
                   std::max(1L, (kLowSpeedSeconds * second + 999) / 1000));
    api.easySetopt(curl, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytes);
    api.easySetopt(curl, CURLOPT_FAILONERROR, 1L);
    // The peer's certificate is not verified (the cloud's chain is not
    // known to the device), but it must name the host asked: curl's default
    // host-name check stays on.
    api.easySetopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    api.easySetopt(curl, CURLOPT_NOSIGNAL, 1L);
    api.easySetopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
}

int mapResponse(const FotaCurl& api, CURL* curl) {
    long code = 0;
    if (api.easyGetinfo(curl, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK) {
        WLOG(WLOG_ERR, WHTTPD_SRC,
             "[FOTA] Curl download file from server failed.Curlinfo response code:%ld \n", code);
        return code == 400 ? 400 : -3;
    }
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "[FOTA] Curlinfo response code:%ld \n", code);
    if (code == 204)
        return 204;
    if (code >= 200 && code <= 299)
        return 200;
    return code == 400 ? 400 : -3;
}

}  // namespace

int wHttpFotaDownload(const char* url, const char* dest, const FotaLimits& limits) {
    if (!url || !dest) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Invalid Request URL or Invalid Destination Path.\n");
        return -1;
    }
    const FotaCurl* api = wHttpFotaCurl();
    CURL* curl = api ? api->easyInit() : nullptr;
    if (!curl) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Fail to open curl\n");
        return -1;
    }
    FILE* out = openDestination(platformPath(dest));
    if (!out) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Fail to open destination outfile path\n");
        api->easyCleanup(curl);
        return -1;
    }
    Sink sink{out, limits.maxBytes};
    setOptions(*api, curl, url, &sink, limits);
    WLOG(WLOG_INFO, WHTTPD_SRC, "[FOTA] Curl downloading start.\n");
    CURLcode res = api->easyPerform(curl);
    fclose(out);
    int result = -1;
    if (res == CURLE_OK || res == CURLE_HTTP_RETURNED_ERROR) {
        if (res == CURLE_OK)
            WLOG(WLOG_DEBUG, WHTTPD_SRC, "[FOTA] Curl download file success, res = %d\n", res);
        else
            WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Server returned an error code (%d).\n", res);
        result = mapResponse(*api, curl);
    } else {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Curl download file failed, res = %d\n", res);
    }
    api->easyCleanup(curl);
    return result;
}
