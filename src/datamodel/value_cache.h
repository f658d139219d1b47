// The answers of value reads, kept while what they show cannot have changed:
// a read of one stored object or table (first level only) answers the same
// text as long as the configuration's version, the clock's second (uptime
// and local time are shown to the second) and the output switches are the
// same.  Objects that the daemon computes or refreshes (extended objects)
// are never kept.  Each thread keeps its own few answers, without a lock.
#pragma once

#include <cstdint>
#include <string>

// What an answer's validity is checked against; taken before the answer is
// built, so that a write during the build makes it stale, never wrong.
struct WHttpValueStamp {
    uint64_t version = 0;
    int64_t bootSecond = 0, wallSecond = 0;
    uint32_t form = 0;
    bool operator==(const WHttpValueStamp&) const = default;
};
WHttpValueStamp wHttpValueStampNow(void);

// The kept answer of a read of `path` with this stamp, when there is one.
bool wHttpValueCacheFind(const std::string& path, int firstLevelOnly, const WHttpValueStamp& stamp,
                         std::string& text);
// Keeps an answer, if the path's object may be kept.
void wHttpValueCacheKeep(const std::string& path, int firstLevelOnly, const WHttpValueStamp& stamp,
                         const std::string& text);
