#include "extobj/devscout.h"

#include <sqlite3.h>

#include <cstring>

#include "daemon/whttpd.h"

namespace {

// The first column of the first row of a one-parameter query; `fallback`
// when there is no row.
std::string firstValue(const char* sql, const std::string& param, const char* fallback) {
    sqlite3* db = gWhttpd.hostDb.load();
    if (!db)
        return fallback;
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) != SQLITE_OK) {
        WLOG(WLOG_ERR, "whttpd_extobj.c", "%s(): error: %s!\n", __func__, sqlite3_errmsg(db));
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

std::string vxDevscoutAlMacOf(const std::string& intfMac) {
    return firstValue("SELECT ALMac FROM SubIntf WHERE [IntfMAC]=?;", intfMac, "");
}

std::string vxDevscoutNodeChannel(const std::string& alMac, const char* band) {
    const char* sql = strcmp(band, "24G") == 0 ? "SELECT Channel_24G FROM DevFunc WHERE [ALMac]=?;"
                                               : "SELECT Channel_5G FROM DevFunc WHERE [ALMac]=?;";
    return firstValue(sql, alMac, "0");
}
