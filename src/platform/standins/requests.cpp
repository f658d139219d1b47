// Requests by type: reboot, reset to defaults, firmware image check and
// upgrade.  Every request the service receives is written to the journal,
// which `wcfgctl requests` lists.
#include <openssl/evp.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>

#include "platform/store/dm_def.h"
#include "platform/json_util.h"
#include "platform/platform.h"
#include "platform/standins/standin.h"
#include "platform/store/wcfg.h"
#include "platform/store/store.h"

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

bool sha256(const std::string& data, unsigned char out[32]) {
    unsigned int len = 0;
    return EVP_Digest(data.data(), data.size(), out, &len, EVP_sha256(), nullptr) == 1 && len == 32;
}

std::string makeImage(const std::string& model, const std::string& version,
                      const std::string& body) {
    std::string img(kImageHeaderSize, '\0');
    memcpy(&img[0], kImageMagic, 8);
    memcpy(&img[8], model.data(), std::min<size_t>(model.size(), 15));
    memcpy(&img[24], version.data(), std::min<size_t>(version.size(), 31));
    uint64_t n = body.size();
    for (int i = 0; i < 8; ++i)
        img[56 + i] = static_cast<char>(n >> (8 * i));
    unsigned char digest[32];
    sha256(body, digest);
    memcpy(&img[64], digest, 32);
    return img + body;
}

int checkImage(const std::string& file, std::string* version) {
    std::ifstream in(file, std::ios::binary);
    if (!in)
        return WCFG_INVALID_IMAGE;
    std::string img((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (img.size() <= kImageHeaderSize || img.compare(0, 8, kImageMagic) != 0)
        return WCFG_INVALID_IMAGE;
    uint64_t n = 0;
    for (int i = 0; i < 8; ++i)
        n |= static_cast<uint64_t>(static_cast<unsigned char>(img[56 + i])) << (8 * i);
    std::string body = img.substr(kImageHeaderSize);
    if (n != body.size())
        return WCFG_INVALID_IMAGE;
    unsigned char digest[32];
    if (!sha256(body, digest) || memcmp(digest, &img[64], 32) != 0)
        return WCFG_INVALID_IMAGE;
    std::string model(img.c_str() + 8, strnlen(img.c_str() + 8, 16));
    objIndex_t iid{};
    json_object* info = nullptr;
    if (wcfgFeObjJsonGetWithoutUpdate(wdm::model().idOf("RDM_OID_DEV_INFO"), &iid, &info) == 0) {
        JsonPtr owned(info);
        json_object* m = nullptr;
        if (json_object_object_get_ex(info, "ModelName", &m) && model != json_object_get_string(m))
            return WCFG_INVALID_IMAGE;
    }
    if (version)
        *version = std::string(img.c_str() + 24, strnlen(img.c_str() + 24, 32));
    return WCFG_SUCCESS;
}

}  // namespace standin

int wcfgFeReqSend(uint32_t type, const char* payload) {
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
        case WCFG_REQ_UPGRADE: {
            bool upgrade = type == WCFG_REQ_UPGRADE;
            json_object_object_add(entry.get(), "req",
                                   json_object_new_string(upgrade ? "upgrade" : "image_check"));
            json_object_object_add(entry.get(), "image",
                                   json_object_new_string(payload ? payload : ""));
            std::string version;
            rc = payload ? standin::checkImage(payload, &version) : WCFG_INVALID_IMAGE;
            if (rc == WCFG_SUCCESS && upgrade) {
                json_object_object_add(entry.get(), "version",
                                       json_object_new_string(version.c_str()));
                std::string dir = platformPath("/data/standin");
                platformMakeDirs(dir);
                std::ifstream in(payload, std::ios::binary);
                std::ofstream out(dir + "/upgraded.bin", std::ios::binary);
                out << in.rdbuf();
            }
            break;
        }
        default:
            json_object_object_add(entry.get(), "req", json_object_new_int64(type));
            rc = WCFG_REQUEST_REJECT;
            break;
    }
    json_object_object_add(entry.get(), "result", json_object_new_int(rc));
    standin::journal(entry.get());
    return rc;
}
