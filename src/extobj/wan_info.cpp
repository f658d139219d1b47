// Device.DeviceInfo.WanInfo.: one flat summary of the uplink, computed on
// every read from configuration objects, the status files of the WAN
// manager and the bandwidth monitor, and (on a device that is no router) a
// ping test run through the configuration service.
#include <cstdio>
#include <cstring>
#include <string>

#include "base/platform.h"
#include "device/commands.h"
#include "datamodel/oid_names.h"
#include "extobj/whttpd_extobj.h"
#include "base/json_util.h"
#include "base/utf8.h"
#include "device/wcfg.h"

namespace {

const int kMaxLayers = 16;  // a loop in "LowerLayers" must end somewhere

JsonPtr getObject(const char* rdm, objIndex_t iid, bool update = true) {
    return wHttpGetObjectByName(rdm, update, iid);
}

JsonPtr getByPath(const std::string& path) {
    objIndex_t iid{};
    int32_t oid = wcfgFeObjNameToObjId(path.c_str(), &iid);
    return wHttpGetObject(oid, true, iid);
}

objIndex_t instance(uint8_t n) {
    objIndex_t iid{};
    iid.level = 1;
    iid.idx[0] = n;
    return iid;
}

int64_t intOf(json_object* obj, const char* key) {
    json_object* v = nullptr;
    return json_object_object_get_ex(obj, key, &v) ? json_object_get_int64(v) : 0;
}

// "PhyRate": down the lower layers of the first Ethernet-based default
// gateway interface.  Only a list with a comma is followed: a single
// interface without one gives no rate.
void addPhyRate(json_object* answer) {
    JsonPtr router = getObject("RDM_OID_ROUTING_ROUTER", instance(1), false);
    std::string gateways =
        std::string(jsonString(router.get(), "X_OLVEX_ActiveDefaultGateway")).substr(0, 255);
    if (gateways.find(',') == std::string::npos)
        return;
    size_t pos = 0;
    while (pos < gateways.size()) {
        size_t comma = gateways.find(',', pos);
        std::string token = gateways.substr(pos, comma - pos);
        pos = comma == std::string::npos ? gateways.size() : comma + 1;
        JsonPtr iface = getByPath(token);
        std::string lower = jsonString(iface.get(), "LowerLayers");
        if (!iface || lower.find("Ethernet") == std::string::npos)
            continue;
        JsonPtr layer;
        for (int depth = 0; !lower.empty() && depth < kMaxLayers; ++depth) {
            layer = getByPath(lower);
            lower = layer ? jsonString(layer.get(), "LowerLayers") : "";
        }
        if (!layer)
            return;
        int64_t max = intOf(layer.get(), "MaxBitRate");
        int64_t current = intOf(layer.get(), "X_OLVEX_DownstreamCurrRate");
        json_object_object_add(answer, "PhyRate",
                               json_object_new_int64(max == 0 && current != 0 ? current : max));
        return;
    }
}

// "DNSServer": the first server on the default-gateway interface, up to the
// first comma.
void addDnsServer(json_object* answer) {
    static const int32_t oid = wHttpOidByName("RDM_OID_DNS_CLIENT_SRV");
    objIndex_t iid{};
    json_object* srv = nullptr;
    while (wcfgFeObjJsonGetNext(oid, &iid, &srv) == WCFG_SUCCESS) {
        JsonPtr owned(srv);
        int n = 0;
        if (sscanf(jsonString(srv, "Interface"), "IP.Interface.%d", &n) != 1 || n < 0 || n > 255)
            continue;
        JsonPtr iface = getObject("RDM_OID_IP_IFACE", instance(static_cast<uint8_t>(n)));
        json_object* gw = nullptr;
        if (!iface || !json_object_object_get_ex(iface.get(), "X_OLVEX_DefaultGatewayIface", &gw) ||
            !json_object_get_boolean(gw))
            continue;
        std::string server = jsonString(srv, "DNSServer");
        json_object_object_add(answer, "DNSServer",
                               json_object_new_string(server.substr(0, server.find(',')).c_str()));
        return;
    }
}

// Router mode: "/tmp/wan_info".  Returns the fallback remembered: 0 none,
// 1 a "Disable" line, 2 another line without "Enable".
int addWanStatus(json_object* answer) {
    FILE* f = fopen(platformPath("/tmp/wan_info").c_str(), "r");
    if (!f)
        return 0;
    char format[32];
    snprintf(format, sizeof format, "%%%zus %%%zus %%%zus", size_t{9}, size_t{23}, size_t{17});
    int fallback = 0;
    char line[128];
    while (fgets(line, sizeof line, f)) {
        if (!utf8Valid(line))
            continue;  // not text: an unreadable line
        if (strstr(line, "Enable")) {
            char status[10] = "", ip[24] = "", mac[18] = "";
            sscanf(line, format, status, ip, mac);
            // The fields are cut by bytes: a cut character reads as no field.
            for (char* field : {status, ip, mac})
                if (!utf8Valid(field))
                    field[0] = '\0';
            json_object_object_add(answer, "Mode", json_object_new_string("gateway"));
            json_object_object_add(answer, "Status", json_object_new_string(status));
            json_object_object_add(answer, "IPAddress", json_object_new_string(ip));
            json_object_object_add(answer, "MAC", json_object_new_string(mac));
        } else if (strstr(line, "Disable")) {
            json_object_object_add(answer, "Status", json_object_new_string("Disable"));
            fallback = 1;
        } else {
            json_object_object_add(answer, "Status", json_object_new_string("LinkDown"));
            fallback = 2;
        }
    }
    fclose(f);
    return fallback;
}

// The LAN bridge's addresses, as ifconfig shows them.
void addBridgeAddresses(json_object* answer) {
    std::string macFile = platformPath("/tmp/LAN_MAC"), ipFile = platformPath("/tmp/LAN_IP");
    char cmd[1024];
    snprintf(cmd, sizeof cmd, "ifconfig br0 | grep HWaddr | awk '{print $5}' > %s",
             macFile.c_str());
    if (wos_formsys(1, cmd) == -1)
        WLOG(WLOG_ERR, VX_SRC, "fail to run system()");
    snprintf(cmd, sizeof cmd,
             "ifconfig br0 | grep 'inet addr' | awk '{print $2}' | awk -F: '{print $2}' > %s",
             ipFile.c_str());
    if (wos_formsys(1, cmd) == -1)
        WLOG(WLOG_ERR, VX_SRC, "fail to run system()");
    char mac[18] = "", ip[64] = "";
    if (FILE* f = fopen(macFile.c_str(), "r")) {
        if (fscanf(f, "%17s", mac) == 1 && utf8Valid(mac))
            json_object_object_add(answer, "MAC", json_object_new_string(mac));
        fclose(f);
    }
    if (FILE* f = fopen(ipFile.c_str(), "r")) {
        if (fscanf(f, "%63s", ip) == 1 && utf8Valid(ip))
            json_object_object_add(answer, "IPAddress", json_object_new_string(ip));
        fclose(f);
    }
}

// Other modes: the repeater's mode, the LAN link's MAC and br0's address.
void addBridgeStatus(json_object* answer) {
    bool online = vxExtenderConnStatusGet() == 1;
    json_object_object_add(answer, "Status",
                           json_object_new_string(online ? "Enable" : "LinkDown"));
    JsonPtr repeater = getObject("RDM_OID_REPEATER", objIndex_t{});
    if (repeater)
        json_object_object_add(answer, "Mode",
                               json_object_new_string(jsonString(repeater.get(), "Mode")));
    JsonPtr link = getObject("RDM_OID_ETH_LINK", instance(1));
    if (link)
        json_object_object_add(answer, "MAC",
                               json_object_new_string(jsonString(link.get(), "MACAddress")));
    static const int32_t ipOid = wHttpOidByName("RDM_OID_IP_IFACE");
    static const int32_t addrOid = wHttpOidByName("RDM_OID_IP_IFACE_V4_ADDR");
    objIndex_t iid{};
    json_object* iface = nullptr;
    while (wcfgFeObjJsonGetNext(ipOid, &iid, &iface) == WCFG_SUCCESS) {
        JsonPtr owned(iface);
        if (strcmp(jsonString(iface, "X_OLVEX_IfName"), "br0") != 0)
            continue;
        objIndex_t a = iid;
        json_object* addr = nullptr;
        if (wcfgFeObjJsonGetNext(addrOid, &a, &addr) == WCFG_SUCCESS) {
            JsonPtr ownedAddr(addr);
            if (a.idx[0] == iid.idx[0])
                json_object_object_add(answer, "IPAddress",
                                       json_object_new_string(jsonString(addr, "IPAddress")));
        }
        break;
    }
}

// The bandwidth monitor's two rates; a short file leaves the rest 0.
void addRates(json_object* answer) {
    FILE* f = fopen(platformPath("/tmp/bwm_result").c_str(), "rb");
    if (!f)
        return;
    int32_t rates[2] = {0, 0};
    size_t got = fread(rates, 1, sizeof rates, f);
    (void)got;
    fclose(f);
    json_object_object_add(answer, "RxRate", json_object_new_int(rates[0]));
    json_object_object_add(answer, "TxRate", json_object_new_int(rates[1]));
}

}  // namespace

int vxExtenderConnStatusGet(void) {
    static const int32_t oid = wHttpOidByName("RDM_OID_IP_DIAG_IPPING");
    for (int attempt = 0; attempt < 3; ++attempt) {
        objIndex_t iid{};
        json_object* ping = nullptr;
        if (wcfgFeObjJsonGet(oid, &iid, &ping) == WCFG_SUCCESS) {
            JsonPtr owned(ping);
            json_object_object_add(ping, "ProtocolVersion", json_object_new_string("IPv4"));
            json_object_object_add(ping, "Host", json_object_new_string("www.example.com"));
            json_object_object_add(ping, "DiagnosticsState", json_object_new_string("Requested"));
            json_object_object_add(ping, "NumberOfRepetitions", json_object_new_int(1));
            objIndex_t target{};
            if (wcfgFeObjJsonSetWithAdditions(oid, &target, ping, nullptr, WCFG_APPLY_FLAGS,
                                              nullptr) == WCFG_SUCCESS) {
                wos_sleep(1);
                if (FILE* f = fopen(platformPath("/var/diagResult").c_str(), "r")) {
                    char line[128];
                    bool received = false;
                    while (!received && fgets(line, sizeof line, f))
                        received = strstr(line, "1 packets received") != nullptr;
                    fclose(f);
                    if (received)
                        return 1;
                }
            }
        } else if (ping) {
            json_object_put(ping);
        }
        wos_sleep(3);
    }
    return 0;
}

int vxWanInfoGet(const char* /*path*/, int /*row*/, json_object** out) {
    json_object* answer = json_object_new_object();
    addPhyRate(answer);
    addDnsServer(answer);
    int fallback = 0;
    if (vxOperationMode() == 0)
        fallback = addWanStatus(answer);
    else
        addBridgeStatus(answer);
    if (fallback)
        addBridgeAddresses(answer);
    addRates(answer);
    *out = answer;
    return WCFG_SUCCESS;
}
