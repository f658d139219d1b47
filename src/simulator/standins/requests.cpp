// Requests by type: reboot, reset to defaults, firmware image check and
// upgrade.  Every request the service receives is written to the journal,
// which `wcfgctl requests` lists.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>

#include "device/dm_def.h"
#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/standins/firmware_image.h"
#include "simulator/standins/standin.h"
#include "device/wcfg.h"
#include "simulator/store/store.h"

namespace standin {

std::string journalPath() {
    return platformPath("/var/log/standin/journal.log");
}

void journal(json_object* entry) {
    static std::mutex m;
    std::lock_guard<std::mutex> lock(m);
    std::string file = journalPath();
    platformMakeDirs(file.substr(0, file.rfind('/')));
    json_object_object_add(entry, "time", json_object_new_int64(time(nullptr)));
    if (FILE* f = fopen(file.c_str(), "a")) {
        fprintf(f, "%s\n", json_object_to_json_string_ext(entry, JSON_C_TO_STRING_PLAIN));
        fclose(f);
    }
}

namespace {

// The device's model name ("" when it cannot be read).
std::string deviceModel() {
    objIndex_t iid{};
    json_object* info = nullptr;
    if (wcfgFeObjJsonGetWithoutUpdate(wdm::model().idOf("RDM_OID_DEV_INFO"), &iid, &info) != 0)
        return "";
    JsonPtr owned(info);
    return jsonString(info, "ModelName");
}

// A device that restarts with a new image reports its version.
void takeVersion(const std::string& version) {
    WcfgCallerScope device(WCFG_CALLER_DEVICE);
    objIndex_t iid{};
    JsonPtr values(json_object_new_object());
    json_object_object_add(values.get(), "SoftwareVersion",
                           json_object_new_string(version.c_str()));
    wcfg::WriteMode mode;
    mode.readOnly = true;
    wcfg::Store::instance().set(wdm::model().idOf("RDM_OID_DEV_INFO"), &iid, values.get(), mode);
}

// Image check (19) and upgrade (7): only a signed image for this model.  The
// upgrade keeps a copy of the image and takes its version.
int imageRequest(bool upgrade, const char* payload, json_object* entry) {
    json_object_object_add(entry, "req",
                           json_object_new_string(upgrade ? "upgrade" : "image_check"));
    json_object_object_add(entry, "image", json_object_new_string(payload ? payload : ""));
    // The image is read once: the bytes checked are the bytes kept.
    std::string version, img;
    int rc = payload && readImageFile(payload, img) ? checkImageBytes(img, deviceModel(), &version)
                                                    : WCFG_INVALID_IMAGE;
    if (rc != WCFG_SUCCESS || !upgrade)
        return rc;
    json_object_object_add(entry, "version", json_object_new_string(version.c_str()));
    std::string dir = platformPath("/data/standin");
    platformMakeDirs(dir);
    std::ofstream(dir + "/upgraded.bin", std::ios::binary | std::ios::trunc) << img;
    takeVersion(version);
    return rc;
}

}  // namespace

int handleRequest(uint32_t type, const char* payload) {
    JsonPtr entry(json_object_new_object());
    int rc = WCFG_SUCCESS;
    switch (type) {
        case WCFG_REQ_REBOOT:
            json_object_object_add(entry.get(), "req", json_object_new_string("reboot"));
            break;
        case WCFG_REQ_RESET:
            json_object_object_add(entry.get(), "req", json_object_new_string("reset"));
            rc = wcfg::Store::instance().resetToDefaults();
            break;
        case WCFG_REQ_IMAGE_CHECK:
        case WCFG_REQ_UPGRADE:
            rc = imageRequest(type == WCFG_REQ_UPGRADE, payload, entry.get());
            break;
        default:
            json_object_object_add(entry.get(), "req", json_object_new_int64(type));
            rc = WCFG_REQUEST_REJECT;
            break;
    }
    json_object_object_add(entry.get(), "result", json_object_new_int(rc));
    journal(entry.get());
    return rc;
}

}  // namespace standin
