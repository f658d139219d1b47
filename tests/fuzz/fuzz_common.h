// Shared by the fuzz targets: a device root prepared once per fuzzing
// process below a temporary directory, with a platform second of 1 ms.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "base/platform.h"
#include "simulator/standins/provision.h"
#include "base/utf8.h"
#include "simulator/standins/standin.h"

inline const std::string& fuzzDeviceRoot() {
    static const std::string root = [] {
        char tmpl[] = "/tmp/whttpd-fuzz-XXXXXX";
        std::string dir = mkdtemp(tmpl);
        // Gone again when the program ends (a crash leaves it to look at).
        static std::string removeAtExit = dir;
        atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(removeAtExit, ec);
        });
        setenv("WHTTPD_ROOT", dir.c_str(), 1);
        setenv("WHTTPD_SECOND_MS", "1", 1);
        setenv("WLOG_LEVEL", "0", 1);
        setenv("WLOG_FILE", "/dev/null", 1);     // the log and the syslog mirror
        if (!freopen("/dev/null", "w", stdout))  // the console lines
            abort();
        standin::install();
        std::string err;
        if (!provision::initDeviceRoot("/bin/true", err))
            abort();
        platformInit();  // the stand-in tools first on PATH, as in the daemon
        return dir;
    }();
    return root;
}

// A property every answer must have: its text is UTF-8 (so JSON stays JSON).
inline void fuzzRequireUtf8(const std::string& text) {
    if (!utf8Valid(text))
        abort();
}
