// POST /api/v1/FOTA?action=online: downloads the image that the last check
// found through its pre-signed URL, answers the client as soon as the
// download succeeded, then unpacks the archive and has the configuration
// service check the image and start the upgrade.  The outcome after the
// answer is visible in LastFWUpdateStatus (22, then 18 or 20).
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <string>

#include "base/platform.h"
#include "device/commands.h"
#include "device/wcfg.h"
#include "fota/fota.h"

namespace {

const char* const kArchive = "/tmp/firmwareImg.zip";
const char* const kImage = "/tmp/firmwareImg.bin";
const char* const kUnpackDir = "/tmp";

// The pre-signed URL, every signing field as the cloud gave it, in the
// 1024-byte buffer that has always held it (a longer one is cut).
std::string downloadUrl(const FotaDescriptor& d) {
    char url[1024];
    int n = snprintf(
        url, sizeof url,
        "%s?X-Amz-Algorithm=%s&X-Amz-Expires=%s&X-Amz-Credential=%s&X-Amz-SignedHeaders=%s"
        "&X-Amz-Date=%s&X-Amz-Signature=%s",
        d.imgUrl, "AWS4-HMAC-SHA256", d.expires, d.credential, "host", d.date, d.signature);
    if (n >= static_cast<int>(sizeof url))
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] download URL cut to %zu bytes\n", sizeof url - 1);
    return url;
}

// The largest image unzip may write: an archive that inflates beyond it
// (a zip bomb) is cut off before it fills the RAM-backed /tmp.
const long long kMaxImageBytes = 2 * kFotaImageLimits.maxBytes;

// One upgrade at a time: they share the archive and image files, and an
// image must not change between its check and the upgrade.
std::mutex gUpgradeMutex;

// Unpacks the image from the archive.  The archive is not authenticated, so
// only the one member the device wants is taken out (nothing else lands in
// /tmp), its size is bounded, a leftover image from an interrupted upgrade
// is removed first, and no shell sees the paths.  A failure is logged and
// the check goes on (the image check refuses what is not a sound image, a
// symbolic link included).
void unpack(const std::string& archive, const std::string& image, const std::string& dir) {
    unlink(image.c_str());
    const char* argv[] = {"unzip", archive.c_str(), "firmwareImg.bin", "-d", dir.c_str(), nullptr};
    if (wos_exec_limited(1, argv, kMaxImageBytes) == -1)
        WLOG(WLOG_ERR, WHTTPD_SRC, "fail to run system()");
}

// After the answer: the archive's size, the unpacking, the two requests.
int install() {
    std::string archive = platformPath(kArchive), image = platformPath(kImage);
    FILE* f = fopen(archive.c_str(), "rb");
    if (!f) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "failed to fopen file\n");
        return 0;
    }
    fseek(f, 0, SEEK_END);
    long size = ftell(f);
    rewind(f);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "fileSize = %ld bytes..\n", size);
    fclose(f);
    unpack(archive, image, platformPath(kUnpackDir));
    RecordLastFWUpdateStatus(FOTA_UPGRADE_STARTING);
    int ret = wcfgFeReqSend(WCFG_REQ_IMAGE_CHECK, image.c_str());
    if (ret != WCFG_SUCCESS) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "firmware upgrade: check image is invalid.\n");
        RecordLastFWUpdateStatus(FOTA_IMAGE_REJECTED);
    } else {
        ret = wcfgFeReqSend(WCFG_REQ_UPGRADE, image.c_str());
        if (ret != WCFG_SUCCESS) {
            WLOG(WLOG_ERR, WHTTPD_SRC, "firmware upgrade: fail to upgrade.\n");
            RecordLastFWUpdateStatus(FOTA_UPGRADE_FAILED);
        }
    }
    unlink(archive.c_str());
    unlink(image.c_str());
    return ret == WCFG_SUCCESS ? 1 : 0;
}

}  // namespace

int wHttpOnlineFirmwareUpgradeHandle_FOTA(CgHttpRequest* request, uint8_t chunked, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    if (!wHttpFotaSupported(request, chunked))
        return 0;
    std::lock_guard<std::mutex> one(gUpgradeMutex);
    wos_pk("Online firmware upgrade: start ......\n");
    FotaDescriptor d = wHttpFotaDescriptor();
    std::string url = downloadUrl(d);
    wos_pk("Online firmware upgrade: start from sDownloadURL %s, %s......\n", url.c_str(),
           d.imgUrl);
    WLOG(WLOG_INFO, WHTTPD_SRC, "Online Firmware Upgrade: parse data OK, start to upgrade....\n");
    int result = wHttpFotaDownload(url.c_str(), kArchive);
    if (result < 200 || result > 299) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "[FOTA] Invalid Server response code\n");
        wHttpFotaAnswer(request, chunked, 400, WCFG_INTERNAL_ERROR);
        return 0;
    }
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "[FOTA] Receive Server response code success\n");
    wHttpFotaAnswer(request, chunked, 200, WCFG_SUCCESS);
    return install();
}
