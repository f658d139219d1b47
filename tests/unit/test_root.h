// A device root for the unit tests of the platform, prepared once per test
// program below a temporary directory.
#pragma once

#include <stdlib.h>

#include <string>

#include "platform/standins/provision.h"

inline const std::string& unitTestRoot() {
    static const std::string root = [] {
        char tmpl[] = "/tmp/whttpd-unit-XXXXXX";
        std::string dir = mkdtemp(tmpl);
        setenv("WHTTPD_ROOT", dir.c_str(), 1);
        std::string err;
        if (!provision::initDeviceRoot("/bin/true", err))
            abort();
        return dir;
    }();
    return root;
}
