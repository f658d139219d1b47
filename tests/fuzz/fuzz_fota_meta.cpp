// The firmware meta file a cloud service sends: the image scan, the key scan
// and the version split, as the firmware check runs them.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fota/fota.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    FotaDescriptor d{};
    wHttpFotaScanImage(text.c_str(), &d);
    FotaSummary s{};
    wHttpFotaScanKeys(text.c_str(), &d, &s);
    std::string fwid, version;
    char code[256] = "";
    wHttpFotaSplitVersion(text.c_str(), &fwid, &version, code, sizeof code);
    return 0;
}
