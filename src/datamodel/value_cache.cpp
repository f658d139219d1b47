// The value-read answers kept per thread: see value_cache.h.
#include "datamodel/value_cache.h"

#include <ctime>
#include <unordered_map>

#include "datamodel/ext_objects.h"
#include "datamodel/schema.h"
#include "device/wcfg.h"
#include "context/response_writer.h"

namespace {

// Enough for the objects a client polls; a thread that reads more starts
// afresh rather than growing.
constexpr size_t kKept = 64;

struct Kept {
    WHttpValueStamp stamp;
    std::string text;
};

thread_local std::unordered_map<std::string, Kept> tKept;

std::string keyOf(const std::string& path, int firstLevelOnly) {
    return firstLevelOnly ? path : path + "*";
}

// A stored object or table that no extended object answers or post-processes
// (itself, or as the table's instances), read first level only.
bool mayBeKept(const std::string& path, int firstLevelOnly) {
    if (!firstLevelOnly)
        return false;
    char className[256] = "";
    if (!wHttpGetSchemaObj(path.c_str(), className, sizeof className, nullptr, 0, nullptr))
        return true;  // "Invalid object" as long as the schema stands
    return vxExtObjCovering(className) < 0;
}

}  // namespace

WHttpValueStamp wHttpValueStampNow(void) {
    WHttpValueStamp s;
    s.version = wcfgFeDataVersion();
    timespec boot{}, wall{};
    clock_gettime(CLOCK_BOOTTIME, &boot);
    clock_gettime(CLOCK_REALTIME_COARSE, &wall);
    s.bootSecond = boot.tv_sec;
    s.wallSecond = wall.tv_sec;
    s.form = wHttpAnswerForm();
    return s;
}

bool wHttpValueCacheFind(const std::string& path, int firstLevelOnly, const WHttpValueStamp& stamp,
                         std::string& text) {
    auto it = tKept.find(keyOf(path, firstLevelOnly));
    if (it == tKept.end() || !(it->second.stamp == stamp))
        return false;
    text = it->second.text;
    return true;
}

void wHttpValueCacheKeep(const std::string& path, int firstLevelOnly, const WHttpValueStamp& stamp,
                         const std::string& text) {
    if (!mayBeKept(path, firstLevelOnly))
        return;
    if (tKept.size() >= kKept)
        tKept.clear();
    tKept[keyOf(path, firstLevelOnly)] = Kept{stamp, text};
}
