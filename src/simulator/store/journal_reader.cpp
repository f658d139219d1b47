// The change journal's reader: one read transaction per call, so that the
// entries and the bounds it gives are those of one committed state.
#include "simulator/store/journal_reader.h"

#include "simulator/store/store.h"

namespace wcfg {

bool JournalReader::ready() {
    if (db_ && db_->isOpen())
        return true;
    db_ = std::make_unique<Db>();
    return db_->open(storeDatabaseFile());
}

bool JournalReader::since(uint64_t after, int limit, std::vector<JournalEntry>& out,
                          uint64_t* oldest, uint64_t* latest) {
    if (!ready() || !db_->beginRead())
        return false;
    uint64_t first = 0, last = 0;
    bool ok = (!oldest && !latest) || db_->journalBounds(first, last);
    ok = ok && db_->journalSince(after, limit, out);
    db_->rollback();
    if (oldest)
        *oldest = first;
    if (latest)
        *latest = last;
    return ok;
}

bool JournalReader::bounds(uint64_t& oldest, uint64_t& latest) {
    if (!ready() || !db_->beginRead())
        return false;
    bool ok = db_->journalBounds(oldest, latest);
    db_->rollback();
    return ok;
}

}  // namespace wcfg
