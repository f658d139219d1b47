// The configuration service's change journal: every write that changes the
// configuration, by any process, leaves one numbered entry per instance it
// changed, added or deleted, in the same transaction as the change itself.
// Followers (the daemon's event streams) read the entries after the last
// number they saw.
#pragma once

#include <cstdint>
#include <string>

namespace wcfg {

enum class JournalKind : int {
    Change = 1,  // parameters of the instance at `path` changed
    Add = 2,     // a new table instance
    Delete = 3,  // an instance and everything below it went away
    Reset = 4,   // the whole configuration was replaced ("Device.")
};

struct JournalEntry {
    uint64_t seq = 0;
    JournalKind kind = JournalKind::Change;
    std::string path;  // "Device.NAT.PortMapping.3."
};

// Entries kept behind the latest one.
constexpr uint64_t kJournalKeep = 4096;

}  // namespace wcfg
