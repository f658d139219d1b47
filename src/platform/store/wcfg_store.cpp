#include "platform/store/wcfg_store.h"

#include <crypt.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>

#include "platform/json_util.h"
#include "platform/platform.h"

extern const char kDefaultConfiguration[];

namespace wcfg {

namespace {

const char* kSchemaSql =
    "CREATE TABLE IF NOT EXISTS instance(oid INTEGER NOT NULL, key INTEGER NOT NULL,"
    " vals TEXT NOT NULL, PRIMARY KEY(oid, key)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS numbering(oid INTEGER NOT NULL, parent INTEGER NOT NULL,"
    " last INTEGER NOT NULL, PRIMARY KEY(oid, parent)) WITHOUT ROWID;";

struct StmtDeleter {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Stmt = std::unique_ptr<sqlite3_stmt, StmtDeleter>;

Stmt prepare(sqlite3* db, const char* sql) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) != SQLITE_OK) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "%s: %s\n", sql, sqlite3_errmsg(db));
        return Stmt(nullptr);
    }
    return Stmt(s);
}

// Span of keys taken by the descendants of an instance of depth `depth`.
uint64_t subtreeSpan(int depth) {
    return depth >= 6 ? 1 : (uint64_t{1} << (8 * (6 - depth)));
}

const wdm::Object* childTable(const wdm::Object& o, const std::string& name) {
    const wdm::Model& m = wdm::model();
    for (int c : o.children) {
        const wdm::Object& ch = m.objects[c];
        if (ch.table && !ch.isVirtual && ch.name == name)
            return &ch;
    }
    return nullptr;
}

json_object* defaultValue(const wdm::Param& p) {
    switch (p.type) {
        case wdm::Type::Bool:
            return json_object_new_boolean(p.hasDefault && p.def == "true");
        case wdm::Type::Int:
        case wdm::Type::Uint:
        case wdm::Type::Ulong:
            return json_object_new_int64(p.hasDefault ? strtoll(p.def.c_str(), nullptr, 10) : 0);
        default:
            return json_object_new_string(p.hasDefault ? p.def.c_str() : "");
    }
}

bool parseInteger(json_object* in, int64_t& v) {
    if (json_object_is_type(in, json_type_int)) {
        v = json_object_get_int64(in);
        return true;
    }
    if (json_object_is_type(in, json_type_string)) {
        const char* s = json_object_get_string(in);
        char* end = nullptr;
        errno = 0;
        long long x = strtoll(s, &end, 10);
        if (!*s || *end || errno)
            return false;
        v = x;
        return true;
    }
    return false;
}

// Converts a written value to the parameter's type; returns a service code.
int convertValue(const wdm::Param& p, json_object* in, json_object** out) {
    switch (p.type) {
        case wdm::Type::Bool: {
            if (json_object_is_type(in, json_type_boolean)) {
                *out = json_object_new_boolean(json_object_get_boolean(in));
                return WCFG_SUCCESS;
            }
            int64_t v;
            if (json_object_is_type(in, json_type_string)) {
                std::string s = json_object_get_string(in);
                if (s == "true" || s == "1")
                    return *out = json_object_new_boolean(1), 0;
                if (s == "false" || s == "0")
                    return *out = json_object_new_boolean(0), 0;
                return WCFG_ERROR_PARAMETER_TYPE;
            }
            if (json_object_is_type(in, json_type_int) && parseInteger(in, v) && (v == 0 || v == 1))
                return *out = json_object_new_boolean(v == 1), 0;
            return WCFG_ERROR_PARAMETER_TYPE;
        }
        case wdm::Type::Int:
        case wdm::Type::Uint:
        case wdm::Type::Ulong: {
            int64_t v;
            if (!parseInteger(in, v))
                return WCFG_ERROR_PARAMETER_TYPE;
            if ((p.hasMin && v < p.min) || (p.hasMax && v > p.max))
                return WCFG_INVALID_PARAM_VALUE;
            *out = json_object_new_int64(v);
            return WCFG_SUCCESS;
        }
        default: {
            std::string s;
            if (json_object_is_type(in, json_type_string))
                s = json_object_get_string(in);
            else if (json_object_is_type(in, json_type_int) ||
                     json_object_is_type(in, json_type_boolean) ||
                     json_object_is_type(in, json_type_double))
                s = json_object_to_json_string_ext(in, JSON_C_TO_STRING_PLAIN);
            else
                return WCFG_ERROR_PARAMETER_TYPE;
            if (p.maxLen && s.size() > p.maxLen)
                return WCFG_INVALID_PARAM_VALUE_LENGTH;
            if (!p.enums.empty() && std::find(p.enums.begin(), p.enums.end(), s) == p.enums.end())
                return WCFG_INVALID_PARAM_VALUE;
            *out = json_object_new_string(s.c_str());
            return WCFG_SUCCESS;
        }
    }
}

bool sameValue(json_object* a, json_object* b) {
    if (!a || !b)
        return a == b;
    return strcmp(json_object_to_json_string_ext(a, JSON_C_TO_STRING_PLAIN),
                  json_object_to_json_string_ext(b, JSON_C_TO_STRING_PLAIN)) == 0;
}

// Turns a clear-text "Password" of an account into its "shadow" line.
void sealAccountPassword(json_object* vals) {
    std::string user = jsonString(vals, "Username");
    std::string pw = jsonString(vals, "Password");
    std::string shadow = jsonString(vals, "shadow");
    std::string hash;
    if (!pw.empty()) {
        char salt[CRYPT_GENSALT_OUTPUT_SIZE];
        crypt_data data{};
        if (crypt_gensalt_rn("$6$", 0, nullptr, 0, salt, sizeof salt) &&
            crypt_r(pw.c_str(), salt, &data))
            hash = data.output;
    } else if (size_t c = shadow.find(':'); c != std::string::npos) {
        hash = shadow.substr(c + 1);
        hash = hash.substr(0, hash.find(':'));
    }
    std::string line = hash.empty() ? "" : user + ":" + hash + ":19000:0:99999:7:::";
    json_object_object_add(vals, "shadow", json_object_new_string(line.c_str()));
    json_object_object_add(vals, "Password", json_object_new_string(""));
}

std::string nowIso() {
    time_t t = time(nullptr);
    tm tmv{};
    gmtime_r(&t, &tmv);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tmv);
    return buf;
}

}  // namespace

uint64_t keyOf(const objIndex_t& iid, int levels) {
    uint64_t k = 0;
    for (int i = 0; i < 6; ++i)
        k = (k << 8) | (i < levels && i < iid.level ? iid.idx[i] : 0);
    return k;
}

std::string instancePath(const wdm::Object& o, const objIndex_t& iid) {
    std::string out;
    int n = 0;
    size_t pos = 0;
    while (pos < o.path.size()) {
        size_t dot = o.path.find('.', pos);
        std::string seg = o.path.substr(pos, dot - pos);
        if (seg == "{i}")
            out += std::to_string(n < iid.level ? iid.idx[n] : 0), ++n;
        else
            out += seg;
        out += ".";
        pos = dot + 1;
    }
    return out;
}

Store& Store::instance() {
    static Store store;
    return store;
}

Store::Store() {
    std::string dir = platformPath("/data/wcfg");
    if (!platformMakeDirs(dir))
        return;
    std::string file = dir + "/config.db";
    if (sqlite3_open_v2(file.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "cannot open %s: %s\n", file.c_str(),
                   db_ ? sqlite3_errmsg(db_) : "?");
        sqlite3_close(db_);
        db_ = nullptr;
        return;
    }
    sqlite3_busy_timeout(db_, 10000);
    exec("PRAGMA journal_mode=WAL;");
    exec("PRAGMA synchronous=NORMAL;");
    exec(kSchemaSql);
    Stmt s = prepare(db_, "SELECT count(*) FROM instance;");
    if (s && sqlite3_step(s.get()) == SQLITE_ROW && sqlite3_column_int(s.get(), 0) == 0) {
        if (begin()) {
            if (seedDefaults() == 0)
                commit();
            else
                rollback();
        }
        writePasswordStore();
    }
}

bool Store::exec(const char* sql) {
    char* err = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) != SQLITE_OK) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "%s: %s\n", sql, err ? err : "?");
        sqlite3_free(err);
        return false;
    }
    return true;
}

// Transactions nest: the outermost is a real transaction, inner ones are
// savepoints, so that a write made inside another (seeding, hooks) commits or
// rolls back with it.
bool Store::begin() {
    if (txDepth_ == 0) {
        if (!exec("BEGIN IMMEDIATE;"))
            return false;
    } else if (!exec(("SAVEPOINT s" + std::to_string(txDepth_) + ";").c_str())) {
        return false;
    }
    ++txDepth_;
    return true;
}

bool Store::commit() {
    if (txDepth_ <= 0)
        return false;
    --txDepth_;
    if (txDepth_ == 0)
        return exec("COMMIT;");
    return exec(("RELEASE s" + std::to_string(txDepth_) + ";").c_str());
}

void Store::rollback() {
    if (txDepth_ <= 0)
        return;
    --txDepth_;
    if (txDepth_ == 0) {
        exec("ROLLBACK;");
    } else {
        std::string sp = "s" + std::to_string(txDepth_);
        exec(("ROLLBACK TO " + sp + "; RELEASE " + sp + ";").c_str());
    }
}

bool Store::readRow(int32_t oid, uint64_t key, std::string& vals) {
    Stmt s = prepare(db_, "SELECT vals FROM instance WHERE oid=? AND key=?;");
    if (!s)
        return false;
    sqlite3_bind_int(s.get(), 1, oid);
    sqlite3_bind_int64(s.get(), 2, static_cast<sqlite3_int64>(key));
    if (sqlite3_step(s.get()) != SQLITE_ROW)
        return false;
    vals = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 0));
    return true;
}

bool Store::writeRow(int32_t oid, uint64_t key, const std::string& vals) {
    Stmt s = prepare(db_, "INSERT OR REPLACE INTO instance(oid, key, vals) VALUES(?, ?, ?);");
    if (!s)
        return false;
    sqlite3_bind_int(s.get(), 1, oid);
    sqlite3_bind_int64(s.get(), 2, static_cast<sqlite3_int64>(key));
    sqlite3_bind_text(s.get(), 3, vals.c_str(), -1, SQLITE_TRANSIENT);
    return sqlite3_step(s.get()) == SQLITE_DONE;
}

bool Store::exists(int32_t oid, uint64_t key) {
    Stmt s = prepare(db_, "SELECT 1 FROM instance WHERE oid=? AND key=?;");
    if (!s)
        return false;
    sqlite3_bind_int(s.get(), 1, oid);
    sqlite3_bind_int64(s.get(), 2, static_cast<sqlite3_int64>(key));
    return sqlite3_step(s.get()) == SQLITE_ROW;
}

int Store::countInstances(const wdm::Object& o, const objIndex_t& parent) {
    uint64_t lo = keyOf(parent, o.depth - 1);
    Stmt s = prepare(db_, "SELECT count(*) FROM instance WHERE oid=? AND key>? AND key<?;");
    if (!s)
        return 0;
    sqlite3_bind_int(s.get(), 1, o.id);
    sqlite3_bind_int64(s.get(), 2, static_cast<sqlite3_int64>(lo));
    sqlite3_bind_int64(s.get(), 3, static_cast<sqlite3_int64>(lo + subtreeSpan(o.depth - 1)));
    return sqlite3_step(s.get()) == SQLITE_ROW ? sqlite3_column_int(s.get(), 0) : 0;
}

json_object* Store::build(const wdm::Object& o, const objIndex_t& iid, const std::string& vals,
                          bool update) {
    JsonPtr stored(json_tokener_parse(vals.c_str()));
    json_object* out = json_object_new_object();
    for (const wdm::Param& p : o.params) {
        json_object* v = nullptr;
        const std::string suffix = "NumberOfEntries";
        if (p.name.size() > suffix.size() &&
            p.name.compare(p.name.size() - suffix.size(), suffix.size(), suffix) == 0) {
            if (const wdm::Object* t =
                    childTable(o, p.name.substr(0, p.name.size() - suffix.size()))) {
                json_object_object_add(out, p.name.c_str(),
                                       json_object_new_int(countInstances(*t, iid)));
                continue;
            }
        }
        if (stored && json_object_object_get_ex(stored.get(), p.name.c_str(), &v))
            json_object_object_add(out, p.name.c_str(), json_object_get(v));
        else
            json_object_object_add(out, p.name.c_str(), defaultValue(p));
    }
    if (update) {
        if (o.rdm == "RDM_OID_DEV_INFO")
            json_object_object_add(out, "UpTime", json_object_new_int64(platformUptimeSeconds()));
        else if (o.rdm == "RDM_OID_TIME")
            json_object_object_add(out, "CurrentLocalTime",
                                   json_object_new_string(nowIso().c_str()));
    }
    return out;
}

int Store::get(int32_t oid, objIndex_t* iid, json_object** out, bool update) {
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o || o->isVirtual)
        return WCFG_INVALID_OBJECT;
    if (!iid || !out)
        return WCFG_INVALID_ARGUMENTS;
    if (iid->level != o->depth)
        return WCFG_NOT_INSTANCE;
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (!db_)
        return WCFG_INTERNAL_ERROR;
    std::string vals;
    if (readRow(oid, keyOf(*iid, o->depth), vals)) {
        *out = build(*o, *iid, vals, update);
        return WCFG_SUCCESS;
    }
    if (!o->table)
        return o->depth ? WCFG_NOT_FOUND : WCFG_NO_SUCH_OBJECT;
    // A missing row: a gap when a sibling with a higher number exists.
    if (o->depth > 1) {
        const wdm::Object* parent = &wdm::model().objects[o->parent];
        while (!parent->table && parent->parent >= 0)
            parent = &wdm::model().objects[parent->parent];
        if (!exists(parent->id, keyOf(*iid, o->depth - 1)))
            return WCFG_NOT_FOUND;
    }
    uint64_t parentKey = keyOf(*iid, o->depth - 1);
    Stmt s = prepare(db_, "SELECT 1 FROM instance WHERE oid=? AND key>? AND key<? LIMIT 1;");
    if (!s)
        return WCFG_INTERNAL_ERROR;
    sqlite3_bind_int(s.get(), 1, oid);
    sqlite3_bind_int64(s.get(), 2, static_cast<sqlite3_int64>(keyOf(*iid, o->depth)));
    sqlite3_bind_int64(s.get(), 3,
                       static_cast<sqlite3_int64>(parentKey + subtreeSpan(o->depth - 1)));
    return sqlite3_step(s.get()) == SQLITE_ROW ? WCFG_NO_SUCH_OBJECT : WCFG_NO_MORE_INSTANCE;
}

int Store::getNext(int32_t oid, objIndex_t* iid, json_object** out, bool update) {
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o || o->isVirtual)
        return WCFG_INVALID_OBJECT;
    if (!iid || !out)
        return WCFG_INVALID_ARGUMENTS;
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (!db_)
        return WCFG_INTERNAL_ERROR;
    if (o->depth == 0) {
        // A single object is handed out once from a zeroed record; idx[0]
        // then marks it as passed.
        if (iid->level != 0 || iid->idx[0] != 0)
            return WCFG_NO_MORE_INSTANCE;
        std::string vals;
        if (!readRow(oid, 0, vals))
            return WCFG_NO_MORE_INSTANCE;
        *out = build(*o, *iid, vals, update);
        iid->idx[0] = 1;
        return WCFG_SUCCESS;
    }
    Stmt s =
        prepare(db_, "SELECT key, vals FROM instance WHERE oid=? AND key>? ORDER BY key LIMIT 1;");
    if (!s)
        return WCFG_INTERNAL_ERROR;
    sqlite3_bind_int(s.get(), 1, oid);
    sqlite3_bind_int64(s.get(), 2,
                       static_cast<sqlite3_int64>(keyOf(*iid, std::min<int>(iid->level, 6))));
    if (sqlite3_step(s.get()) != SQLITE_ROW)
        return WCFG_NO_MORE_INSTANCE;
    uint64_t key = static_cast<uint64_t>(sqlite3_column_int64(s.get(), 0));
    std::string vals = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 1));
    objIndex_t found{};
    found.level = static_cast<uint8_t>(o->depth);
    for (int i = 0; i < 6; ++i)
        found.idx[i] = static_cast<uint8_t>(key >> (8 * (5 - i)));
    for (int i = o->depth; i < 6; ++i)
        found.idx[i] = 0;
    *iid = found;
    *out = build(*o, found, vals, update);
    return WCFG_SUCCESS;
}

int Store::set(int32_t oid, objIndex_t* iid, json_object* values, bool apply, bool notify,
               bool admin) {
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o || o->isVirtual)
        return WCFG_INVALID_OBJECT;
    if (!iid || !values)
        return WCFG_INVALID_ARGUMENTS;
    if (!json_object_is_type(values, json_type_object))
        return WCFG_INVALID_FORMAT;
    if (iid->level != o->depth)
        return WCFG_NOT_INSTANCE;
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (!db_)
        return WCFG_INTERNAL_ERROR;
    uint64_t key = keyOf(*iid, o->depth);
    std::string vals;
    if (!readRow(oid, key, vals))
        return WCFG_NO_SUCH_OBJECT;
    JsonPtr merged(build(*o, *iid, vals, false));
    bool isAccount = o->rdm == "RDM_OID_VX_LOG_CFG_GP_ACCOUNT";
    json_object_object_foreach(values, name, value) {
        const wdm::Param* p = o->param(name);
        if (!p)
            return WCFG_NO_SUCH_PARAMETER;
        json_object* converted = nullptr;
        int rc = convertValue(*p, value, &converted);
        if (rc != WCFG_SUCCESS)
            return rc;
        JsonPtr owned(converted);
        json_object* current = nullptr;
        json_object_object_get_ex(merged.get(), name, &current);
        if (!p->writable && !admin) {
            if (!sameValue(current, converted))
                return WCFG_SET_READ_ONLY_PARAM;
            continue;
        }
        json_object_object_add(merged.get(), name, json_object_get(converted));
    }
    if (isAccount)
        sealAccountPassword(merged.get());
    if (!begin())
        return WCFG_INTERNAL_ERROR;
    if (!writeRow(oid, key, json_object_to_json_string_ext(merged.get(), JSON_C_TO_STRING_PLAIN))) {
        rollback();
        return WCFG_INTERNAL_ERROR;
    }
    if (!commit())
        return WCFG_INTERNAL_ERROR;
    if (isAccount)
        writePasswordStore();
    pending_.emplace_back(oid, key);
    if (apply)
        runApplyHooks();
    if (notify)
        notifyDataModelChanged();
    return WCFG_SUCCESS;
}

int Store::createInstance(const wdm::Object& o, const objIndex_t& iid, json_object* values) {
    uint64_t key = keyOf(iid, o.depth);
    if (!exists(o.id, key)) {
        JsonPtr vals(json_object_new_object());
        for (const wdm::Param& p : o.params)
            json_object_object_add(vals.get(), p.name.c_str(), defaultValue(p));
        if (!writeRow(o.id, key,
                      json_object_to_json_string_ext(vals.get(), JSON_C_TO_STRING_PLAIN)))
            return WCFG_INTERNAL_ERROR;
        for (int c : o.children) {
            const wdm::Object& ch = wdm::model().objects[c];
            if (!ch.table && !ch.isVirtual) {
                int rc = createInstance(ch, iid, nullptr);
                if (rc)
                    return rc;
            }
        }
    }
    if (values) {
        objIndex_t rec = iid;
        return set(o.id, &rec, values, false, false, true);
    }
    return WCFG_SUCCESS;
}

int Store::add(int32_t oid, objIndex_t* iid) {
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o || o->isVirtual)
        return WCFG_INVALID_OBJECT;
    if (!iid)
        return WCFG_INVALID_ARGUMENTS;
    if (!o->table || !o->create)
        return WCFG_INS_CREATE_ERR;
    if (iid->level != o->depth)
        return WCFG_NOT_INSTANCE;
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (!db_)
        return WCFG_INTERNAL_ERROR;
    objIndex_t parent = *iid;
    parent.level = static_cast<uint8_t>(o->depth - 1);
    if (o->depth > 1) {
        const wdm::Object* p = &wdm::model().objects[o->parent];
        while (!p->table && p->parent >= 0)
            p = &wdm::model().objects[p->parent];
        if (!exists(p->id, keyOf(parent, o->depth - 1)))
            return WCFG_NO_SUCH_OBJECT;
    }
    if (countInstances(*o, parent) >= o->maxInst)
        return WCFG_EXCEED_MAX_INS_NUM;
    uint64_t parentKey = keyOf(parent, o->depth - 1);
    int last = 0;
    {
        Stmt s = prepare(db_, "SELECT last FROM numbering WHERE oid=? AND parent=?;");
        if (!s)
            return WCFG_INTERNAL_ERROR;
        sqlite3_bind_int(s.get(), 1, oid);
        sqlite3_bind_int64(s.get(), 2, static_cast<sqlite3_int64>(parentKey));
        if (sqlite3_step(s.get()) == SQLITE_ROW)
            last = sqlite3_column_int(s.get(), 0);
    }
    objIndex_t rec = *iid;
    int n = last + 1;
    if (n > o->maxInst) {
        // Every number has been used once: take the lowest free one.
        for (n = 1; n <= o->maxInst; ++n) {
            rec.idx[o->depth - 1] = static_cast<uint8_t>(n);
            if (!exists(oid, keyOf(rec, o->depth)))
                break;
        }
        if (n > o->maxInst)
            return WCFG_EXCEED_MAX_INS_NUM;
    }
    rec.idx[o->depth - 1] = static_cast<uint8_t>(n);
    if (!begin())
        return WCFG_INTERNAL_ERROR;
    Stmt s = prepare(db_, "INSERT OR REPLACE INTO numbering(oid, parent, last) VALUES(?, ?, ?);");
    bool ok = s != nullptr;
    if (ok) {
        sqlite3_bind_int(s.get(), 1, oid);
        sqlite3_bind_int64(s.get(), 2, static_cast<sqlite3_int64>(parentKey));
        sqlite3_bind_int(s.get(), 3, std::max(n, last));
        ok = sqlite3_step(s.get()) == SQLITE_DONE;
    }
    if (!ok || createInstance(*o, rec, nullptr) != WCFG_SUCCESS) {
        rollback();
        return WCFG_INTERNAL_ERROR;
    }
    if (!commit())
        return WCFG_INTERNAL_ERROR;
    iid->idx[o->depth - 1] = static_cast<uint8_t>(n);
    runApplyHooks();
    notifyDataModelChanged();
    return WCFG_SUCCESS;
}

void Store::deleteSubtree(const wdm::Object& o, const objIndex_t& iid) {
    uint64_t lo = keyOf(iid, o.depth);
    uint64_t hi = lo + subtreeSpan(o.depth);
    std::vector<int> stack{static_cast<int>(&o - &wdm::model().objects[0])};
    while (!stack.empty()) {
        const wdm::Object& cur = wdm::model().objects[stack.back()];
        stack.pop_back();
        if (!cur.isVirtual) {
            Stmt s = prepare(db_, "DELETE FROM instance WHERE oid=? AND key>=? AND key<?;");
            if (s) {
                sqlite3_bind_int(s.get(), 1, cur.id);
                sqlite3_bind_int64(s.get(), 2, static_cast<sqlite3_int64>(lo));
                sqlite3_bind_int64(s.get(), 3, static_cast<sqlite3_int64>(hi));
                sqlite3_step(s.get());
            }
        }
        for (int c : cur.children)
            stack.push_back(c);
    }
}

int Store::del(int32_t oid, objIndex_t* iid) {
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o || o->isVirtual)
        return WCFG_INVALID_OBJECT;
    if (!iid)
        return WCFG_INVALID_ARGUMENTS;
    if (!o->table)
        return WCFG_INS_CREATE_ERR;
    if (!o->create)
        return WCFG_DELETE_REJECT;
    if (iid->level != o->depth)
        return WCFG_NOT_INSTANCE;
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (!db_)
        return WCFG_INTERNAL_ERROR;
    if (!exists(oid, keyOf(*iid, o->depth)))
        return WCFG_NO_SUCH_OBJECT;
    if (!begin())
        return WCFG_INTERNAL_ERROR;
    deleteSubtree(*o, *iid);
    if (!commit())
        return WCFG_INTERNAL_ERROR;
    if (o->rdm == "RDM_OID_VX_LOG_CFG_GP_ACCOUNT")
        writePasswordStore();
    notifyDataModelChanged();
    return WCFG_SUCCESS;
}

int Store::seedDefaults() {
    const wdm::Model& m = wdm::model();
    objIndex_t zero{};
    for (const wdm::Object& o : m.objects) {
        if (o.depth == 0 && !o.isVirtual) {
            int rc = createInstance(o, zero, nullptr);
            if (rc)
                return rc;
        }
    }
    JsonPtr defaults(json_tokener_parse(kDefaultConfiguration));
    if (!defaults)
        return WCFG_INTERNAL_ERROR;
    json_object_object_foreach(defaults.get(), path, values) {
        objIndex_t iid{};
        int32_t oid = wcfgFeObjNameToObjId(path, &iid);
        const wdm::Object* o = m.byId(oid);
        if (!o || iid.level != o->depth) {
            wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "bad default path %s\n", path);
            return WCFG_INVALID_OBJECT;
        }
        // Parent instances named in the path come first in the defaults.
        int rc = createInstance(*o, iid, values);
        if (rc) {
            wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "default %s: %d\n", path, rc);
            return rc;
        }
        if (o->table) {
            objIndex_t parent = iid;
            parent.level = static_cast<uint8_t>(o->depth - 1);
            Stmt s =
                prepare(db_,
                        "INSERT INTO numbering(oid, parent, last) VALUES(?, ?, ?) "
                        "ON CONFLICT(oid, parent) DO UPDATE SET last=max(last, excluded.last);");
            if (!s)
                return WCFG_INTERNAL_ERROR;
            sqlite3_bind_int(s.get(), 1, oid);
            sqlite3_bind_int64(s.get(), 2, static_cast<sqlite3_int64>(keyOf(parent, o->depth - 1)));
            sqlite3_bind_int(s.get(), 3, iid.idx[o->depth - 1]);
            sqlite3_step(s.get());
        }
    }
    pending_.clear();
    return WCFG_SUCCESS;
}

int Store::resetToDefaults() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (!db_)
        return WCFG_INTERNAL_ERROR;
    if (!begin())
        return WCFG_INTERNAL_ERROR;
    if (!exec("DELETE FROM instance; DELETE FROM numbering;") || seedDefaults() != 0) {
        rollback();
        return WCFG_INTERNAL_ERROR;
    }
    if (!commit())
        return WCFG_INTERNAL_ERROR;
    writePasswordStore();
    notifyDataModelChanged();
    return WCFG_SUCCESS;
}

void Store::writePasswordStore() {
    const wdm::Model& m = wdm::model();
    int32_t oid = m.idOf("RDM_OID_VX_LOG_CFG_GP_ACCOUNT");
    std::string text;
    Stmt s = prepare(db_, "SELECT vals FROM instance WHERE oid=? ORDER BY key;");
    if (!s)
        return;
    sqlite3_bind_int(s.get(), 1, oid);
    while (sqlite3_step(s.get()) == SQLITE_ROW) {
        JsonPtr vals(
            json_tokener_parse(reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 0))));
        std::string line = jsonString(vals.get(), "shadow");
        if (!line.empty())
            text += line + "\n";
    }
    std::string dir = platformPath("/etc");
    platformMakeDirs(dir);
    std::string file = dir + "/shadow";
    std::string tmp = file + ".tmp";
    FILE* f = fopen(tmp.c_str(), "w");
    if (!f)
        return;
    fputs(text.c_str(), f);
    if (fclose(f) == 0)
        rename(tmp.c_str(), file.c_str());
}

void Store::runApplyHooks() {
    const wdm::Model& m = wdm::model();
    std::vector<std::pair<int32_t, uint64_t>> work;
    work.swap(pending_);
    for (const auto& [oid, key] : work) {
        const wdm::Object* o = m.byId(oid);
        if (!o)
            continue;
        std::string vals;
        if (!readRow(oid, key, vals))
            continue;
        JsonPtr obj(json_tokener_parse(vals.c_str()));
        if (!obj)
            continue;
        objIndex_t iid{};
        iid.level = static_cast<uint8_t>(o->depth);
        for (int i = 0; i < o->depth; ++i)
            iid.idx[i] = static_cast<uint8_t>(key >> (8 * (5 - i)));
        std::string state = jsonString(obj.get(), "DiagnosticsState");
        if (o->rdm == "RDM_OID_IP_DIAG_IPPING" && state == "Requested") {
            bool reachable =
                access(platformPath("/etc/standin/internet_unreachable").c_str(), F_OK) != 0;
            std::string file = platformPath("/var/diagResult");
            if (FILE* f = fopen(file.c_str(), "w")) {
                fprintf(f, "PING %s: 64 data bytes\n", jsonString(obj.get(), "Host"));
                fprintf(f, "\n--- ping statistics ---\n");
                fprintf(f, reachable
                               ? "1 packets transmitted, 1 packets received, 0%% packet loss\n"
                               : "1 packets transmitted, 0 packets received, 100%% packet loss\n");
                fclose(f);
            }
            JsonPtr res(json_object_new_object());
            json_object_object_add(
                res.get(), "DiagnosticsState",
                json_object_new_string(reachable ? "Complete" : "Error_NoRouteToHost"));
            json_object_object_add(res.get(), "SuccessCount",
                                   json_object_new_int(reachable ? 1 : 0));
            json_object_object_add(res.get(), "FailureCount",
                                   json_object_new_int(reachable ? 0 : 1));
            json_object_object_add(res.get(), "AverageResponseTime",
                                   json_object_new_int(reachable ? 12 : 0));
            set(oid, &iid, res.get(), false, false, true);
        } else if ((o->rdm == "RDM_OID_IP_DIAG_DL_DIAG" || o->rdm == "RDM_OID_IP_DIAG_UL_DIAG") &&
                   state == "Requested") {
            bool dl = o->rdm == "RDM_OID_IP_DIAG_DL_DIAG";
            std::string now = nowIso();
            JsonPtr res(json_object_new_object());
            json_object_object_add(res.get(), "DiagnosticsState",
                                   json_object_new_string("Complete"));
            for (const char* k : {"ROMTime", "BOMTime", "EOMTime"})
                json_object_object_add(res.get(), k, json_object_new_string(now.c_str()));
            json_object_object_add(res.get(), dl ? "TestBytesReceived" : "TestBytesSent",
                                   json_object_new_int64(dl ? 117440512 : 26214400));
            set(oid, &iid, res.get(), false, false, true);
        } else if (o->rdm == "RDM_OID_OPERATION_MODE") {
            json_object* mode = nullptr;
            json_object_object_get_ex(obj.get(), "Mode", &mode);
            static const char* names[] = {"Router", "AccessPoint", "Extender"};
            int v = mode ? json_object_get_int(mode) : 0;
            JsonPtr res(json_object_new_object());
            json_object_object_add(res.get(), "Mode",
                                   json_object_new_string(names[v >= 0 && v < 3 ? v : 0]));
            objIndex_t zero{};
            set(m.idOf("RDM_OID_REPEATER"), &zero, res.get(), false, false, true);
        }
    }
    pending_.clear();
}

}  // namespace wcfg
