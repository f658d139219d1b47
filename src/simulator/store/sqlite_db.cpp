// The store's SQLite database: statements, transactions, rows, numbering.
#include "simulator/store/sqlite_db.h"

#include <sqlite3.h>

#include "base/platform.h"

namespace wcfg {

namespace {

const char* const kSchemaSql =
    "CREATE TABLE IF NOT EXISTS instance(oid INTEGER NOT NULL, key INTEGER NOT NULL,"
    " vals TEXT NOT NULL, PRIMARY KEY(oid, key)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS numbering(oid INTEGER NOT NULL, parent INTEGER NOT NULL,"
    " last INTEGER NOT NULL, PRIMARY KEY(oid, parent)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS meta(name TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "INSERT OR IGNORE INTO meta(name, value) VALUES('version', 0);"
    // The change journal: one row per instance changed, added or deleted,
    // numbered in commit order by every process alike (AUTOINCREMENT: a
    // number is never given twice, even once the rows before it are gone).
    "CREATE TABLE IF NOT EXISTS journal(seq INTEGER PRIMARY KEY AUTOINCREMENT,"
    " kind INTEGER NOT NULL, path TEXT NOT NULL);";

const char* const kReadRow = "SELECT vals FROM instance WHERE oid=? AND key=?;";
const char* const kExists = "SELECT 1 FROM instance WHERE oid=? AND key=?;";
const char* const kWriteRow = "INSERT OR REPLACE INTO instance(oid, key, vals) VALUES(?, ?, ?);";
const char* const kEraseRange = "DELETE FROM instance WHERE oid=? AND key>=? AND key<?;";
const char* const kCountRange = "SELECT count(*) FROM instance WHERE oid=? AND key>? AND key<?;";
const char* const kAnyInRange = "SELECT 1 FROM instance WHERE oid=? AND key>? AND key<? LIMIT 1;";
const char* const kRowsOf = "SELECT oid, key, vals FROM instance WHERE oid=? ORDER BY key;";
const char* const kAllRows = "SELECT oid, key, vals FROM instance ORDER BY oid, key;";
const char* const kAnyRow = "SELECT 1 FROM instance LIMIT 1;";
const char* const kLastNumber = "SELECT last FROM numbering WHERE oid=? AND parent=?;";
const char* const kSetLastNumber =
    "INSERT INTO numbering(oid, parent, last) VALUES(?, ?, ?) "
    "ON CONFLICT(oid, parent) DO UPDATE SET last=excluded.last;";
const char* const kVersion = "SELECT value FROM meta WHERE name='version';";
const char* const kBumpVersion = "UPDATE meta SET value=value+1 WHERE name='version';";
const char* const kJournalAppend = "INSERT INTO journal(kind, path) VALUES(?, ?);";
const char* const kJournalTrim = "DELETE FROM journal WHERE seq<=?;";
const char* const kJournalSince =
    "SELECT seq, kind, path FROM journal WHERE seq>? ORDER BY seq LIMIT ?;";
const char* const kJournalOldest = "SELECT min(seq) FROM journal;";
const char* const kJournalLatest = "SELECT seq FROM sqlite_sequence WHERE name='journal';";

// Resets a statement and its bindings when a use of it ends.
class Use {
  public:
    explicit Use(sqlite3_stmt* s) : s_(s) {}
    ~Use() {
        if (s_) {
            sqlite3_reset(s_);
            sqlite3_clear_bindings(s_);
        }
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    explicit operator bool() const { return s_ != nullptr; }
    sqlite3_stmt* get() const { return s_; }
    void bind(int i, int64_t v) { sqlite3_bind_int64(s_, i, v); }
    void bindKey(int i, uint64_t v) { sqlite3_bind_int64(s_, i, static_cast<sqlite3_int64>(v)); }
    void bindText(int i, const std::string& v) {
        sqlite3_bind_text(s_, i, v.data(), static_cast<int>(v.size()), SQLITE_STATIC);
    }

  private:
    sqlite3_stmt* s_;
};

}  // namespace

Db::~Db() {
    for (auto& [sql, s] : stmts_)
        sqlite3_finalize(s);
    if (db_)
        sqlite3_close(db_);
}

bool Db::open(const std::string& file) {
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(file.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "cannot open %s: %s\n", file.c_str(),
                   db_ ? sqlite3_errmsg(db_) : "out of memory");
        sqlite3_close(db_);
        db_ = nullptr;
        return false;
    }
    sqlite3_busy_timeout(db_, 10000);
    // No lookaside buffers: reads are served from the image, and a router's
    // memory is better spent elsewhere than on 100 kB per connection.
    sqlite3_db_config(db_, SQLITE_DBCONFIG_LOOKASIDE, nullptr, 0, 0);
    // WAL: readers never wait for a writer; FULL: a write that has been
    // answered survives a power cut too, not only a crash of the process.
    if (!exec("PRAGMA journal_mode=WAL;") || !exec("PRAGMA synchronous=FULL;") ||
        !exec(kSchemaSql)) {
        sqlite3_close(db_);
        db_ = nullptr;
        return false;
    }
    return true;
}

void Db::releaseMemory() {
    if (db_)
        sqlite3_db_release_memory(db_);
}

const char* Db::error() const {
    return db_ ? sqlite3_errmsg(db_) : "not open";
}

bool Db::exec(const char* sql) {
    char* err = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) != SQLITE_OK) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "%s: %s\n", sql, err ? err : "?");
        sqlite3_free(err);
        return false;
    }
    return true;
}

sqlite3_stmt* Db::stmt(const char* sql) {
    auto it = stmts_.find(sql);
    if (it != stmts_.end())
        return it->second;
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr) != SQLITE_OK) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "%s: %s\n", sql, sqlite3_errmsg(db_));
        return nullptr;
    }
    stmts_.emplace(sql, s);
    return s;
}

bool Db::beginWrite() {
    return exec("BEGIN IMMEDIATE;");
}

bool Db::beginRead() {
    return exec("BEGIN;");
}

bool Db::commit() {
    if (exec("COMMIT;"))
        return true;
    rollback();
    return false;
}

void Db::rollback() {
    if (!sqlite3_get_autocommit(db_))
        exec("ROLLBACK;");
}

Db::Found Db::readRow(int32_t oid, uint64_t key, std::string& vals) {
    Use s(stmt(kReadRow));
    if (!s)
        return Found::Error;
    s.bind(1, oid);
    s.bindKey(2, key);
    int rc = sqlite3_step(s.get());
    if (rc == SQLITE_DONE)
        return Found::No;
    if (rc != SQLITE_ROW)
        return Found::Error;
    const unsigned char* text = sqlite3_column_text(s.get(), 0);
    vals = text ? reinterpret_cast<const char*>(text) : "";
    return Found::Yes;
}

Db::Found Db::exists(int32_t oid, uint64_t key) {
    Use s(stmt(kExists));
    if (!s)
        return Found::Error;
    s.bind(1, oid);
    s.bindKey(2, key);
    int rc = sqlite3_step(s.get());
    return rc == SQLITE_ROW ? Found::Yes : rc == SQLITE_DONE ? Found::No : Found::Error;
}

bool Db::writeRow(int32_t oid, uint64_t key, const std::string& vals) {
    Use s(stmt(kWriteRow));
    if (!s)
        return false;
    s.bind(1, oid);
    s.bindKey(2, key);
    s.bindText(3, vals);
    return sqlite3_step(s.get()) == SQLITE_DONE;
}

bool Db::eraseRange(int32_t oid, uint64_t lo, uint64_t hi) {
    Use s(stmt(kEraseRange));
    if (!s)
        return false;
    s.bind(1, oid);
    s.bindKey(2, lo);
    s.bindKey(3, hi);
    return sqlite3_step(s.get()) == SQLITE_DONE;
}

bool Db::countRange(int32_t oid, uint64_t lo, uint64_t hi, int& n) {
    Use s(stmt(kCountRange));
    if (!s)
        return false;
    s.bind(1, oid);
    s.bindKey(2, lo);
    s.bindKey(3, hi);
    if (sqlite3_step(s.get()) != SQLITE_ROW)
        return false;
    n = sqlite3_column_int(s.get(), 0);
    return true;
}

bool Db::anyInRange(int32_t oid, uint64_t lo, uint64_t hi, bool& any) {
    Use s(stmt(kAnyInRange));
    if (!s)
        return false;
    s.bind(1, oid);
    s.bindKey(2, lo);
    s.bindKey(3, hi);
    int rc = sqlite3_step(s.get());
    any = rc == SQLITE_ROW;
    return rc == SQLITE_ROW || rc == SQLITE_DONE;
}

bool Db::forEachRow(int32_t oid, const std::function<void(int32_t, uint64_t, const char*)>& fn) {
    Use s(stmt(oid < 0 ? kAllRows : kRowsOf));
    if (!s)
        return false;
    if (oid >= 0)
        s.bind(1, oid);
    int rc;
    while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(s.get(), 2);
        fn(sqlite3_column_int(s.get(), 0), static_cast<uint64_t>(sqlite3_column_int64(s.get(), 1)),
           text ? reinterpret_cast<const char*>(text) : "");
    }
    return rc == SQLITE_DONE;
}

bool Db::removeAll() {
    return exec("DELETE FROM instance; DELETE FROM numbering;");
}

bool Db::isEmpty(bool& empty) {
    Use s(stmt(kAnyRow));
    if (!s)
        return false;
    int rc = sqlite3_step(s.get());
    empty = rc == SQLITE_DONE;
    return rc == SQLITE_ROW || rc == SQLITE_DONE;
}

bool Db::lastNumber(int32_t oid, uint64_t parent, int& last) {
    Use s(stmt(kLastNumber));
    if (!s)
        return false;
    s.bind(1, oid);
    s.bindKey(2, parent);
    int rc = sqlite3_step(s.get());
    last = rc == SQLITE_ROW ? sqlite3_column_int(s.get(), 0) : 0;
    return rc == SQLITE_ROW || rc == SQLITE_DONE;
}

bool Db::setLastNumber(int32_t oid, uint64_t parent, int last) {
    Use s(stmt(kSetLastNumber));
    if (!s)
        return false;
    s.bind(1, oid);
    s.bindKey(2, parent);
    s.bind(3, last);
    return sqlite3_step(s.get()) == SQLITE_DONE;
}

bool Db::version(uint64_t& v) {
    Use s(stmt(kVersion));
    if (!s || sqlite3_step(s.get()) != SQLITE_ROW)
        return false;
    v = static_cast<uint64_t>(sqlite3_column_int64(s.get(), 0));
    return true;
}

bool Db::bumpVersion(uint64_t& v) {
    Use s(stmt(kBumpVersion));
    if (!s || sqlite3_step(s.get()) != SQLITE_DONE)
        return false;
    return version(v);
}

bool Db::appendJournal(int kind, const std::string& path, uint64_t keep) {
    {
        Use s(stmt(kJournalAppend));
        if (!s)
            return false;
        s.bind(1, kind);
        s.bindText(2, path);
        if (sqlite3_step(s.get()) != SQLITE_DONE)
            return false;
    }
    sqlite3_int64 seq = sqlite3_last_insert_rowid(db_);
    lastJournal_ = static_cast<uint64_t>(seq);
    if (static_cast<uint64_t>(seq) <= keep)
        return true;
    Use s(stmt(kJournalTrim));
    if (!s)
        return false;
    s.bind(1, seq - static_cast<sqlite3_int64>(keep));
    return sqlite3_step(s.get()) == SQLITE_DONE;
}

bool Db::journalSince(uint64_t after, int limit, std::vector<JournalEntry>& out) {
    Use s(stmt(kJournalSince));
    if (!s)
        return false;
    s.bindKey(1, after);
    s.bind(2, limit);
    int rc;
    while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(s.get(), 2);
        out.push_back({static_cast<uint64_t>(sqlite3_column_int64(s.get(), 0)),
                       static_cast<JournalKind>(sqlite3_column_int(s.get(), 1)),
                       text ? reinterpret_cast<const char*>(text) : ""});
    }
    return rc == SQLITE_DONE;
}

bool Db::journalBounds(uint64_t& oldest, uint64_t& latest) {
    latest = 0;
    {
        Use s(stmt(kJournalLatest));
        if (!s)
            return false;
        int rc = sqlite3_step(s.get());
        if (rc == SQLITE_ROW)
            latest = static_cast<uint64_t>(sqlite3_column_int64(s.get(), 0));
        else if (rc != SQLITE_DONE)
            return false;
    }
    Use s(stmt(kJournalOldest));
    if (!s || sqlite3_step(s.get()) != SQLITE_ROW)
        return false;
    // No row kept: the next change is the oldest there will be.
    oldest = sqlite3_column_type(s.get(), 0) == SQLITE_NULL
                 ? latest + 1
                 : static_cast<uint64_t>(sqlite3_column_int64(s.get(), 0));
    return true;
}

}  // namespace wcfg
