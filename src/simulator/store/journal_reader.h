// Reads the store's change journal (journal.h) through a database connection
// of its own, so that a follower never competes with the store's readers and
// writers for theirs.  One reader serves one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "device/device.h"
#include "device/journal.h"
#include "simulator/store/sqlite_db.h"

namespace wcfg {

class JournalReader : public device::JournalReader {
  public:
    // Up to `limit` entries after `after`, oldest first; false when the
    // database cannot be read.  With `oldest` and `latest`, the bounds of the
    // journal as of the same read (so that a reader tells whether entries
    // after `after` were trimmed before it got to them).
    bool since(uint64_t after, int limit, std::vector<JournalEntry>& out,
               uint64_t* oldest = nullptr, uint64_t* latest = nullptr) override;
    // The oldest entry kept (latest + 1 when none is) and the latest number.
    bool bounds(uint64_t& oldest, uint64_t& latest) override;

  private:
    bool ready();
    std::unique_ptr<Db> db_;
};

}  // namespace wcfg
