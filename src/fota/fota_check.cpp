// GET /api/v1/FOTA: asks the cloud firmware service whether newer firmware
// exists, keeps the download descriptor of its answer for the upgrade, and
// stores a summary and an outcome code in the periodic-online-upgrade object.
//
// The descriptor and the version buffers are daemon-wide: a check overwrites
// what another one left.  A mutex makes each access whole (no torn or racing
// reads); it is never held across a transfer.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "base/platform.h"
#include "datamodel/oid_names.h"
#include "datamodel/return_codes.h"
#include "device/wcfg.h"
#include "base/utf8.h"
#include "fota/fota.h"
#include "context/response_writer.h"

namespace {

const char* const kMetaFile = "/tmp/OLV.meta";
// A meta file is a few hundred bytes; a larger one is refused as memory
// the device cannot give (the cloud's answer is not authenticated).
const long kMetaMax = 1 << 20;

std::mutex gFotaMutex;
FotaDescriptor gDescriptor;
char gCurrentVersion[64];
char gVersionCode[64];

// Writes members of the periodic-online-upgrade object without apply, as the
// device (its fields are read-only for clients).
int storeUpgradeObject(json_object* values) {
    WcfgCallerScope device(WCFG_CALLER_DEVICE);
    objIndex_t iid{};
    return wcfgFeObjJsonSetWithoutApply(wHttpOidByName("RDM_OID_PERIODIC_ONLINE_F_W_UPGRADE"), &iid,
                                        values, nullptr);
}

void storeSummary(const char* version, const char* date, const char* description, bool newFw) {
    JsonPtr values(json_object_new_object());
    char cut[65], dateCut[32];
    version = version ? version : "";
    date = date ? date : "";
    // Cut where a character ends, so that the store takes the value.
    wos_strlcpy(cut, version, utf8CutLength(version, sizeof cut - 1) + 1);
    wos_strlcpy(dateCut, date, utf8CutLength(date, sizeof dateCut - 1) + 1);
    json_object_object_add(values.get(), "CurrentFWVersion", json_object_new_string(cut));
    json_object_object_add(values.get(), "ReleaseDate", json_object_new_string(dateCut));
    json_object_object_add(values.get(), "Description", json_object_new_string(description));
    json_object_object_add(values.get(), "NewFWAvailable", json_object_new_boolean(newFw));
    int ret = storeUpgradeObject(values.get());
    if (ret != WCFG_SUCCESS)
        WLOG(WLOG_ERR, WHTTPD_SRC, "Set PeriodicOnlineFwUpgradeObj failed, ret = %d\n", ret);
}

// The device's software version (two copies, as the URL is built from one
// and the summary from the other) and the auth part from its serial number.
struct Identity {
    char versionA[64] = "";
    char versionB[64] = "";
    char auth[64] = "";
};

Identity readIdentity() {
    Identity id;
    if (JsonPtr info = wHttpGetObjectByName("RDM_OID_DEV_INFO", true)) {
        wos_strlcpy(id.versionA, jsonString(info.get(), "SoftwareVersion"), sizeof id.versionA);
        wos_strlcpy(id.versionB, jsonString(info.get(), "SoftwareVersion"), sizeof id.versionB);
        snprintf(id.auth, sizeof id.auth, "auth_code=%s", jsonString(info.get(), "SerialNumber"));
    }
    return id;
}

// The check URL: server URL, auth_code, status (always 10), version code,
// today's date, firmware id.
std::string checkUrl(const Identity& id) {
    char server[1023] = "";
    if (JsonPtr up = wHttpGetObjectByName("RDM_OID_PERIODIC_ONLINE_F_W_UPGRADE", true))
        wos_strlcpy(server, jsonString(up.get(), "ServerURL"), sizeof server);
    char status[16];
    snprintf(status, sizeof status, "&status=%d", 10);
    std::string fwid, version;
    {
        std::lock_guard<std::mutex> lock(gFotaMutex);
        if (!id.versionA[0] || !id.versionB[0])
            WLOG(WLOG_INFO, WHTTPD_SRC, "At Posting info to AWS_FOTA_Firmware_Upgrade %s %d\n",
                 server, __LINE__);
        else
            wos_strlcpy(gCurrentVersion, id.versionA, sizeof gCurrentVersion);
        wHttpFotaSplitVersion(id.versionB, &fwid, &version, gVersionCode, sizeof gVersionCode);
    }
    time_t now = time(nullptr);
    struct tm tm {};
    localtime_r(&now, &tm);
    char date[32];
    snprintf(date, sizeof date, "&date=%04d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
    return std::string(server) + id.auth + status + version + date + fwid;
}

// Reads the meta file whole; 0, or the outcome code of the failure.
int readMeta(std::string& text) {
    std::string file = platformPath(kMetaFile);
    FILE* f = fopen(file.c_str(), "rb");
    if (!f) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Failed to fopen Meta file \n");
        return FOTA_META_OPEN_FAILED;
    }
    std::unique_ptr<FILE, int (*)(FILE*)> owned(f, fclose);
    if (fseek(f, 0, SEEK_END) != 0) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] failed to fseek file \n");
        return FOTA_META_UNUSABLE;
    }
    long size = ftell(f);
    if (size < 0) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] failed to ftell file \n");
        return FOTA_META_UNUSABLE;
    }
    if (size == 0) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] failed,size: %ld\n", size);
        return FOTA_META_UNUSABLE;
    }
    WLOG(WLOG_INFO, WHTTPD_SRC, "filesize - meta file, size: %ld\n", size);
    rewind(f);
    if (size > kMetaMax) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "fail to calloc memory, size = %zu",
             static_cast<size_t>(size) + 8);
        WLOG(WLOG_ERR, WHTTPD_SRC, "malloc Buffer failure.\n");
        return FOTA_NO_MEMORY;
    }
    text.assign(static_cast<size_t>(size) + 8, '\0');
    size_t got = fread(text.data(), 1, static_cast<size_t>(size), f);
    if (got != static_cast<size_t>(size)) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "Read size(%ld) is not equal to file size(%ld).\n",
             static_cast<long>(got), size);
        return FOTA_NO_MEMORY;
    }
    text.resize(strlen(text.c_str()));
    if (!utf8Valid(text)) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] meta file is not UTF-8 text\n");
        return FOTA_META_UNUSABLE;
    }
    return 0;
}

// A 2xx answer: the meta file's scans, the descriptor and the summary.
int takeMeta(CgHttpRequest* request, uint8_t chunked, const char* versionA) {
    std::string text;
    if (int code = readMeta(text)) {
        unlink(platformPath(kMetaFile).c_str());
        RecordLastFWUpdateStatus(code);
        wHttpFotaAnswer(request, chunked, 400, WCFG_INTERNAL_ERROR);
        return 0;
    }
    {
        std::lock_guard<std::mutex> lock(gFotaMutex);
        gDescriptor = FotaDescriptor{};
    }
    FotaDescriptor d{};
    if (!wHttpFotaScanImage(text.c_str(), &d)) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "Parse Firmware Info failed.\n");
        RecordLastFWUpdateStatus(FOTA_META_UNUSABLE);
        wHttpFotaAnswer(request, chunked, 400, WCFG_INTERNAL_ERROR);
        return 0;
    }
    FotaSummary s{};
    wHttpFotaScanKeys(text.c_str(), &d, &s);
    {
        std::lock_guard<std::mutex> lock(gFotaMutex);
        gDescriptor = d;
    }
    storeSummary(versionA, s.releaseDate, s.description, strncmp(s.exFwVersion, versionA, 64) != 0);
    RecordLastFWUpdateStatus(FOTA_INFO_STORED);
    wHttpFotaAnswer(request, chunked, 200, WCFG_SUCCESS);
    return 1;
}

}  // namespace

FotaDescriptor wHttpFotaDescriptor() {
    std::lock_guard<std::mutex> lock(gFotaMutex);
    return gDescriptor;
}

void wHttpFotaAnswer(CgHttpRequest* request, uint8_t chunked, int httpStatus, int code) {
    json_object* doc = json_object_new_object();
    // The firmware answers name the code itself ("WCFG_SUCCESS",
    // "WCFG_INTERNAL_ERROR", ...), not the value handlers' texts.
    wHttpSetOperStatus(doc, wHttpRetCodeName(code));
    CgHttpResponse* response = cg_http_response_new();
    cg_http_response_setstatuscode(response, httpStatus);
    wHttpJsonResponse_restapi(request, response, doc, chunked, 0);
}

bool wHttpFotaSupported(CgHttpRequest* request, uint8_t chunked) {
    JsonPtr flags = wHttpGetObjectByName("RDM_OID_FEATURE_FLAG", true);
    if (!flags)
        return true;
    json_object* v = nullptr;
    if (!json_object_object_get_ex(flags.get(), "Flags", &v) || (json_object_get_int64(v) & 0x8000))
        return true;
    WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Not support.\n");
    wHttpFotaAnswer(request, chunked, 400, WCFG_REQUEST_REJECT);
    return false;
}

int RecordLastFWUpdateStatus(uint32_t code) {
    if (!wHttpGetObjectByName("RDM_OID_PERIODIC_ONLINE_F_W_UPGRADE", false)) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[%s]: Get PeriodicFWUpdate failed.\n", __func__);
        return WCFG_INTERNAL_ERROR;
    }
    JsonPtr values(json_object_new_object());
    json_object_object_add(values.get(), "LastFWUpdateStatus", json_object_new_int64(code));
    int ret = storeUpgradeObject(values.get());
    WLOG(WLOG_INFO, WHTTPD_SRC, "%s [%d]: FW LastFWUpdateStatus = [%d]\n", __func__, __LINE__,
         static_cast<int>(code));
    if (ret != WCFG_SUCCESS)
        WLOG(WLOG_ERR, WHTTPD_SRC, "[%s]: Set PeriodicFWUpdate failed.\n", __func__);
    return ret;
}

int wHttpOnlineFirmwareUpgradeCheck_FOTA(CgHttpRequest* request, uint8_t chunked, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    if (!wHttpFotaSupported(request, chunked))
        return 0;
    Identity id = readIdentity();
    std::string url = checkUrl(id);
    int result = wHttpFotaDownload(url.c_str(), kMetaFile, kFotaMetaLimits);
    if (result == 204 || result == 400) {
        storeSummary(id.versionA, "N/A", "N/A", false);
        RecordLastFWUpdateStatus(FOTA_NO_FIRMWARE);
        wHttpFotaAnswer(request, chunked, 200, WCFG_SUCCESS);
        return 1;
    }
    if (result == 200)
        return takeMeta(request, chunked, id.versionA);
    WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Invalid Server response code\n");
    RecordLastFWUpdateStatus(FOTA_SERVER_ERROR);
    wHttpFotaAnswer(request, chunked, 400, WCFG_INTERNAL_ERROR);
    return 0;
}
