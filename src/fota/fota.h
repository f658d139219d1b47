// Online firmware upgrade: the check against the cloud firmware service
// (GET /api/v1/FOTA) and the download and upgrade it makes possible
// (/api/v1/FOTA?action=online).
#pragma once

#include <cstdint>
#include <string>

#include "http/cg_http.h"

int wHttpOnlineFirmwareUpgradeCheck_FOTA(CgHttpRequest* request, uint8_t chunked, int spare);
int wHttpOnlineFirmwareUpgradeHandle_FOTA(CgHttpRequest* request, uint8_t chunked, int spare);

// Outcome codes kept in LastFWUpdateStatus.
enum {
    FOTA_NO_FIRMWARE = 10,
    FOTA_META_OPEN_FAILED = 14,
    FOTA_INFO_STORED = 15,
    FOTA_META_UNUSABLE = 16,
    FOTA_IMAGE_REJECTED = 18,
    FOTA_UPGRADE_FAILED = 20,
    FOTA_SERVER_ERROR = 21,
    FOTA_UPGRADE_STARTING = 22,
    FOTA_NO_MEMORY = 99,
};
int RecordLastFWUpdateStatus(uint32_t code);

// Bounds of one transfer: its size, and its whole time in platform seconds
// (the answer is not authenticated; a cloud or a man in the middle must not
// fill the device's RAM-backed /tmp or hold a request thread for ever).
struct FotaLimits {
    long long maxBytes;
    long maxSeconds;
};
constexpr FotaLimits kFotaMetaLimits{1 << 20, 120};
constexpr FotaLimits kFotaImageLimits{64LL << 20, 1800};

// Fetches `url` into the device file `dest` (libcurl): 200 for any 2xx but
// 204, 204, 400, -3 for other answers, -1 when the transfer failed (or
// passed a limit).
int wHttpFotaDownload(const char* url, const char* dest,
                      const FotaLimits& limits = kFotaImageLimits);

// What the last check's meta file said: the image and its pre-signed
// download credentials, daemon-wide (one check overwrites another's).
struct FotaDescriptor {
    char imgUrl[512];
    char imgVersion[128];
    char signature[512];
    char expires[512];
    char credential[512];
    char date[512];
    char exFwVersion[64];
};
// A copy of the descriptor as it stands.
FotaDescriptor wHttpFotaDescriptor();

// The meta-file scans (exposed for the unit tests).  The image location from
// the "meta_file" member: false unless both the URL and the version are found.
bool wHttpFotaScanImage(const char* meta, FotaDescriptor* d);
// The summary keys of the first 1024 bytes.
struct FotaSummary {
    char releaseDate[256];
    char fwSize[256];
    char description[256];
    char exFwVersion[256];
};
void wHttpFotaScanKeys(const char* meta, FotaDescriptor* d, FotaSummary* s);
// Cuts a software version into the query's firmware id and version parts:
// "V1.20(ABCD.7)C0" gives "&fwid=ABCD" and "&version=7C0"; `code` gets the
// version code's pieces appended.
void wHttpFotaSplitVersion(const char* version, std::string* fwidPart, std::string* versionPart,
                           char* code, size_t codeSize);

// Shared by the two handlers: answers `httpStatus` with the name of a
// configuration-service code as "oper_status".
void wHttpFotaAnswer(CgHttpRequest* request, uint8_t chunked, int httpStatus, int code);
// Whether the device offers online upgrades (feature flag 0x8000; a flag
// that cannot be read counts as set).  When not, answers 400 and says false.
bool wHttpFotaSupported(CgHttpRequest* request, uint8_t chunked);
