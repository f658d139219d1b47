// A device root for the unit tests of the platform, prepared once per test
// program below a temporary directory.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "datamodel/schema.h"
#include "simulator/standins/provision.h"

inline const std::string& unitTestRoot() {
    static const std::string root = [] {
        char tmpl[] = "/tmp/whttpd-unit-XXXXXX";
        std::string dir = mkdtemp(tmpl);
        // Gone again when the program ends (a crash leaves it to look at).
        static std::string removeAtExit = dir;
        atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(removeAtExit, ec);
        });
        setenv("WHTTPD_ROOT", dir.c_str(), 1);
        std::string err;
        if (!provision::initDeviceRoot("/bin/true", err))
            abort();
        return dir;
    }();
    return root;
}

// The device root's REST schema, loaded once per test program (a load
// replaces the schema and keeps the old one for readers that may hold it).
inline bool unitTestSchema() {
    unitTestRoot();
    static const bool loaded = wHttpSchemaLoad();
    return loaded;
}
