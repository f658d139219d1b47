// Readers of the association lists and DHCP leases other services write.
#include "extobj/host_files.h"

#include <strings.h>
#include <sys/sysinfo.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/platform.h"
#include "datamodel/oid_names.h"
#include "base/json_util.h"
#include "device/wcfg.h"

namespace {

uint32_t quad(const char* text) {
    int a = 0, b = 0, c = 0, d = 0;
    if (!text || sscanf(text, "%d.%d.%d.%d", &a, &b, &c, &d) != 4)
        return 0;
    return (static_cast<uint32_t>(a) << 24) | (static_cast<uint32_t>(b) << 16) |
           (static_cast<uint32_t>(c) << 8) | static_cast<uint32_t>(d);
}

// The lease time of the DHCP pool whose network holds `ip`; the first pool's
// when none does, 0 without pools.
int64_t poolLeaseTime(const std::string& ip) {
    static const int32_t oid = wHttpOidByName("RDM_OID_DHCPV4_SRV_POOL");
    objIndex_t iid{};
    json_object* pool = nullptr;
    int64_t first = -1, found = -1;
    while (found < 0 && wcfgFeObjJsonGetNextWithoutUpdate(oid, &iid, &pool) == WCFG_SUCCESS) {
        JsonPtr owned(pool);
        json_object* v = nullptr;
        int64_t lease =
            json_object_object_get_ex(pool, "LeaseTime", &v) ? json_object_get_int64(v) : 0;
        if (first < 0)
            first = lease;
        if (vxHostsInSubnet(ip.c_str(), jsonString(pool, "MinAddress"),
                            jsonString(pool, "SubnetMask")))
            found = lease;
    }
    return found >= 0 ? found : (first >= 0 ? first : 0);
}

}  // namespace

int vxHostsAssocRssi(const std::string& mac, bool middleOnly) {
    std::string want = mac.substr(0, 19);
    for (char& c : want)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    for (const char* file : {"/tmp/assoc_list.24g", "/tmp/assoc_list.5g"}) {
        FILE* f = fopen(platformPath(file).c_str(), "r");
        if (!f)
            continue;
        char line[128];
        int rssi = 0;
        bool found = false;
        while (!found && fgets(line, sizeof line, f)) {
            char station[18] = "";
            int seconds = 0, r = 0;
            if (sscanf(line, "%17s  %10d  %4d ", station, &seconds, &r) != 3)
                continue;
            found = middleOnly ? (strlen(station) >= 14 && want.size() >= 14 &&
                                  strncmp(station + 3, want.c_str() + 3, 11) == 0)
                               : want == station;
            rssi = r;
        }
        fclose(f);
        if (found)
            return rssi;
    }
    return 0;
}

bool vxHostsInSubnet(const char* a, const char* n, const char* m) {
    uint32_t addr = quad(a), net = quad(n), mask = quad(m);
    return (net & mask) <= addr && addr <= ((~mask) | (net & mask));
}

int64_t vxHostsLeaseLeft(int64_t leaseTime, int64_t uptime, int64_t ackTime) {
    int64_t elapsed = uptime > ackTime ? uptime - ackTime : 0;
    return leaseTime > elapsed ? leaseTime - elapsed : 0;
}

// A host without a lease line has 0 left (see vxHostsLeaseLeft for the rule).
std::string vxHostsLeaseTime(const std::string& mac, const std::string& ip) {
    std::string file = platformPath("/var/dnsmasq/dnsmasq.leases");
    FILE* f = fopen(file.c_str(), "r");
    if (!f) {
        wos_pk("%s : cannot open file %s\n", __func__, file.c_str());
        return "0";
    }
    int ackTime = -1;
    char line[256];
    while (ackTime < 0 && fgets(line, sizeof line, f)) {
        int t = 0;
        char leaseMac[64] = "";
        if (sscanf(line, "%d %*s %63s %*s %*s %*s", &t, leaseMac) == 2 &&
            strcasecmp(leaseMac, mac.c_str()) == 0)
            ackTime = t;
    }
    fclose(f);
    struct sysinfo info {};
    if (sysinfo(&info) != 0) {
        wos_pk("%s : cannot get sysinfo\n", __func__);
        return "0";
    }
    int64_t leaseTime = poolLeaseTime(ip);
    int64_t uptime = static_cast<int64_t>(info.uptime);
    int64_t left = ackTime >= 0 ? vxHostsLeaseLeft(leaseTime, uptime, ackTime) : 0;
    WLOG(WLOG_DEBUG, VX_SRC,
         "[%s] ackTime %d, unixTimeStamp %u, uptime %d, leaseTime %d, dhcpseasetime: %d\n",
         __func__, ackTime, static_cast<unsigned>(time(nullptr)), static_cast<int>(uptime),
         static_cast<int>(leaseTime), static_cast<int>(left));
    return std::to_string(left);
}
