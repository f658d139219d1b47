// The host-probe database: opening it at start-up, the per-request load of
// its Device table, and lookups with bound parameters.
#include "extobj/devscout.h"

#include <sqlite3.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "extobj/whttpd_extobj.h"
#include "base/json_util.h"
#include "base/platform.h"
#include "base/utf8.h"

namespace {

const char* const kHostDbFile = "/tmp/devscout.db";

// Opened by the main thread once the server serves; read by request threads.
std::atomic<sqlite3*> gHostDb{nullptr};

// The first column of the first row of a one-parameter query; `fallback`
// when there is no row.
std::string firstValue(const char* sql, const std::string& param, const char* fallback) {
    sqlite3* db = gHostDb.load();
    if (!db)
        return fallback;
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) != SQLITE_OK) {
        WLOG(WLOG_ERR, VX_SRC, "%s(): error: %s!\n", __func__, sqlite3_errmsg(db));
        return fallback;
    }
    sqlite3_bind_text(s, 1, param.data(), static_cast<int>(param.size()), SQLITE_TRANSIENT);
    std::string out = fallback;
    if (sqlite3_step(s) == SQLITE_ROW) {
        const unsigned char* v = sqlite3_column_text(s, 0);
        if (v)
            out.assign(reinterpret_cast<const char*>(v),
                       strnlen(reinterpret_cast<const char*>(v), 255));
    }
    sqlite3_finalize(s);
    return out;
}

}  // namespace

void vxOpenHostDatabase(bool (*stop)(void)) {
    std::string file = platformPath(kHostDbFile);
    for (;;) {
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_SHAREDCACHE,
                            nullptr) == SQLITE_OK) {
            gHostDb = db;
            return;
        }
        fprintf(stderr, "Can't open database: %s\n", db ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        if (stop())
            return;
        wos_sleep(1);
    }
}

std::string vxDevscoutAlMacOf(const std::string& intfMac) {
    return firstValue("SELECT ALMac FROM SubIntf WHERE [IntfMAC]=?;", intfMac, "");
}

std::string vxDevscoutNodeChannel(const std::string& alMac, const char* band) {
    const char* sql = strcmp(band, "24G") == 0 ? "SELECT Channel_24G FROM DevFunc WHERE [ALMac]=?;"
                                               : "SELECT Channel_5G FROM DevFunc WHERE [ALMac]=?;";
    return firstValue(sql, alMac, "0");
}

void vxDevscoutLoadDevices(void) {
    if (vxHostsTable().cells)
        return;
    sqlite3* db = gHostDb.load();
    WLOG(WLOG_DEBUG, VX_SRC, "%s() Original DevsctDatabaseHostListNum=%d\n", __func__,
         vxHostsTable().rows);
    if (!db)
        return;
    char** table = nullptr;
    int rows = 0, columns = 0;
    for (int attempt = 0;; ++attempt) {
        char* err = nullptr;
        if (sqlite3_get_table(db, "SELECT * FROM Device;", &table, &rows, &columns, &err) ==
            SQLITE_OK)
            break;
        WLOG(WLOG_ERR, VX_SRC, "%s(): error: %s!\n", __func__, err ? err : "?");
        bool locked = err && strstr(err, "database is locked");
        sqlite3_free(err);
        table = nullptr;
        rows = columns = 0;
        if (!locked || attempt == 3)
            return;
        wos_sleep(1);
    }
    vxHostsKeepTable(table, rows, columns);
    WLOG(WLOG_DEBUG, VX_SRC, "%s() DevsctDatabaseHostListNum=%d\n", __func__, rows);
}

std::string vxDevscoutColumn(int row, int column, const char* fallback) {
    VxHostTable t = vxHostsTable();
    if (!t.cells || row < 1 || row > t.rows || column < 0 || column >= t.columns)
        return fallback;
    const char* cell = t.at(row, column);
    if (!cell || !*cell || (column == 11 && !strcmp(cell, "0")))
        return fallback;
    // Host names and the like come from the hosts themselves: text that is
    // not UTF-8 reads as an empty cell.
    if (!utf8Valid(cell))
        return fallback;
    if (column != 17)
        return cell;
    JsonPtr node(jsonParseUtf8(cell));
    json_object* v = nullptr;
    if (!strcmp(fallback, "2")) {
        if (!json_object_object_get_ex(node.get(), "NewfirmwareUpgradeState", &v))
            return fallback;
        return std::to_string(json_object_get_int(v));
    }
    if (!json_object_object_get_ex(node.get(), "FirmwareVersion", &v))
        return fallback;
    std::string version = json_object_get_string(v);
    return version.substr(0, utf8CutLength(version, 3));
}

bool vxDevscoutIsNode(int row) {
    return vxDevscoutColumn(row, 0, "") == "L2Device";
}

std::string vxDevscoutChannel(int row, const char* band) {
    if (vxDevscoutIsNode(row))
        return vxDevscoutNodeChannel(vxDevscoutColumn(row, 3, ""), band);
    std::string want = strcmp(band, "24G") == 0 ? "1" : "2";
    if (vxDevscoutColumn(row, 27, "0") != want)
        return "0";
    return vxDevscoutColumn(row, 26, "0");
}
