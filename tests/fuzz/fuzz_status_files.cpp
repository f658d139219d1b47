// Status files that other services write and the daemon reads and re-serves:
// the 2.4 GHz association list, the DHCP leases, the WAN status and the
// bandwidth monitor's rates.  The input is cut at zero bytes into the four
// files; the host and WAN readers then run over them, and their answers
// must stay UTF-8.
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "extobj/host_files.h"
#include "extobj/whttpd_extobj.h"
#include "fuzz_common.h"
#include "base/json_util.h"

namespace {

void put(const std::string& file, const std::string& text) {
    std::ofstream(fuzzDeviceRoot() + file, std::ios::binary | std::ios::trunc) << text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzDeviceRoot();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> parts(4);
    size_t k = 0;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0 && k < 3)
            ++k;
        else
            parts[k] += static_cast<char>(data[i]);
    }
    put("/tmp/assoc_list.24g", parts[0]);
    put("/var/dnsmasq/dnsmasq.leases", parts[1]);
    put("/tmp/wan_info", parts[2]);
    put("/tmp/bwm_result", parts[3]);
    vxHostsAssocRssi("02:AA:00:00:00:02", false);
    vxHostsAssocRssi("02:AA:00:00:00:02", true);
    fuzzRequireUtf8(vxHostsLeaseTime("02:aa:00:00:00:01", "192.168.1.33"));
    json_object* out = nullptr;
    vxWanInfoGet("Device.DeviceInfo.WanInfo.", 0, &out);
    if (out) {
        fuzzRequireUtf8(json_object_to_json_string(out));
        json_object_put(out);
    }
    return 0;
}
