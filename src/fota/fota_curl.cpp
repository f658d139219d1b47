// Loads libcurl on the first firmware transfer (see fota_curl.h).
#include "fota/fota_curl.h"

#include <dlfcn.h>

#include <mutex>

#include "base/platform.h"

namespace {

// The runtime name of the library the headers describe (Debian's libcurl4).
const char kLibrary[] = "libcurl.so.4";

template <typename Fn>
bool bind(void* lib, const char* name, Fn& fn) {
    fn = reinterpret_cast<Fn>(dlsym(lib, name));
    if (!fn)
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] %s not found in %s\n", name, kLibrary);
    return fn != nullptr;
}

const FotaCurl* load() {
    void* lib = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Fail to load %s: %s\n", kLibrary, dlerror());
        return nullptr;
    }
    static FotaCurl api;
    CURLcode (*globalInit)(long) = nullptr;
    bool bound = bind(lib, "curl_global_init", globalInit) &&
                 bind(lib, "curl_easy_init", api.easyInit) &&
                 bind(lib, "curl_easy_setopt", api.easySetopt) &&
                 bind(lib, "curl_easy_perform", api.easyPerform) &&
                 bind(lib, "curl_easy_getinfo", api.easyGetinfo) &&
                 bind(lib, "curl_easy_cleanup", api.easyCleanup);
    // Once set up, libcurl stays for the daemon's life: unloading it would
    // leave OpenSSL's handlers pointing into unmapped code.
    if (!bound) {
        dlclose(lib);
        return nullptr;
    }
    if (globalInit(CURL_GLOBAL_ALL) != CURLE_OK) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Fail to set up %s\n", kLibrary);
        return nullptr;
    }
    return &api;
}

}  // namespace

const FotaCurl* wHttpFotaCurl() {
    static std::once_flag once;
    static const FotaCurl* api = nullptr;
    std::call_once(once, [] { api = load(); });
    return api;
}
