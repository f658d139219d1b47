// The configuration store's SQLite database ("/data/wcfg/config.db"): one
// connection with its prepared statements, transactions, and the rows of
// instances, the instance numbering and the store's version.  Every step's
// result is checked; a failed step makes the call return false, and the
// caller rolls its transaction back.  Not thread-safe: each user owns its
// connection or guards it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "device/journal.h"

struct sqlite3;
struct sqlite3_stmt;

namespace wcfg {

class Db {
  public:
    Db() = default;
    ~Db();
    Db(const Db&) = delete;
    Db& operator=(const Db&) = delete;

    // Opens (creating when missing) the database and its tables.
    bool open(const std::string& file);
    bool isOpen() const { return db_ != nullptr; }

    // BEGIN IMMEDIATE: takes the database's write lock (waits up to 10 s).
    bool beginWrite();
    // BEGIN: a read snapshot.
    bool beginRead();
    bool commit();
    void rollback();

    enum class Found { Yes, No, Error };
    Found readRow(int32_t oid, uint64_t key, std::string& vals);
    Found exists(int32_t oid, uint64_t key);
    bool writeRow(int32_t oid, uint64_t key, const std::string& vals);
    // Removes the rows of `oid` with lo <= key < hi.
    bool eraseRange(int32_t oid, uint64_t lo, uint64_t hi);
    // Counts the rows of `oid` with lo < key < hi.
    bool countRange(int32_t oid, uint64_t lo, uint64_t hi, int& n);
    // Whether `oid` has a row with lo < key < hi.
    bool anyInRange(int32_t oid, uint64_t lo, uint64_t hi, bool& any);
    // Calls `fn` for every row of `oid` (every row when oid < 0), in key order.
    bool forEachRow(int32_t oid, const std::function<void(int32_t, uint64_t, const char*)>& fn);
    bool removeAll();
    bool isEmpty(bool& empty);

    // The highest instance number given below a parent (0 when none).
    bool lastNumber(int32_t oid, uint64_t parent, int& last);
    bool setLastNumber(int32_t oid, uint64_t parent, int last);

    // The store's version: raised by one in every write transaction.
    bool version(uint64_t& v);
    bool bumpVersion(uint64_t& v);

    // The change journal: appends an entry in the open write transaction
    // and forgets the entries more than `keep` behind it.
    bool appendJournal(int kind, const std::string& path, uint64_t keep);
    // The number of the last entry appended since the last call (0: none).
    uint64_t takeLastJournal() { return std::exchange(lastJournal_, 0); }
    // Up to `limit` entries after `after`, oldest first.
    bool journalSince(uint64_t after, int limit, std::vector<JournalEntry>& out);
    // The oldest entry kept (latest + 1 when none is) and the latest number
    // given (0 before the first).
    bool journalBounds(uint64_t& oldest, uint64_t& latest);

    // Gives back the connection's page cache (the image holds what readers need).
    void releaseMemory();

    const char* error() const;

  private:
    bool exec(const char* sql);
    sqlite3_stmt* stmt(const char* sql);

    sqlite3* db_ = nullptr;
    std::map<const char*, sqlite3_stmt*> stmts_;  // by the address of the SQL text
    uint64_t lastJournal_ = 0;
};

}  // namespace wcfg
