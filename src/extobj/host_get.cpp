// Device.Hosts.Host.i.: the configuration service's host, merged with what
// the mesh's host-probe database, the Wi-Fi radios, the Ethernet port, the
// DHCP leases and the access points' association lists know of it, with its
// signal class; hosts that describe nothing useful become an empty-instance
// marker.
#include <cstdio>
#include <cstring>
#include <string>

#include "base/platform.h"
#include "datamodel/obj_ops.h"
#include "datamodel/oid_names.h"
#include "extobj/devscout.h"
#include "extobj/host_files.h"
#include "extobj/whttpd_extobj.h"
#include "base/json_util.h"
#include "device/wcfg.h"

namespace {

const int kDevscoutColumns = 29;

void setInt(json_object* obj, const char* key, int64_t v) {
    json_object_object_add(obj, key, json_object_new_int64(v));
}

void setText(json_object* obj, const char* key, const std::string& v) {
    json_object_object_add(obj, key, json_object_new_string(v.c_str()));
}

int64_t intOf(json_object* obj, const char* key) {
    json_object* v = nullptr;
    return json_object_object_get_ex(obj, key, &v) ? json_object_get_int64(v) : 0;
}

// The configuration service's host table is rebuilt once per request.
void refreshHosts() {
    if (vxHostsRefreshedMark())
        return;
    static const int32_t oid = wHttpOidByName("RDM_OID_HOSTS");
    objIndex_t iid{};
    json_object* hosts = nullptr;
    wcfgFeObjJsonGet(oid, &iid, &hosts);
    if (hosts)
        json_object_put(hosts);
    WLOG(WLOG_DEBUG, VX_SRC, "%s() updated\n", "wHttpWcfgDataModelHostListUpdate");
    vxHostsSetRefreshedMark();
}

// Band and the radios' channels for a Wi-Fi host.
void addWifiKeys(json_object* host, const std::string& type) {
    int band = type == "Wi-Fi 2.4GHz" ? 1 : type == "Wi-Fi 5GHz" ? 2 : 0;
    if (!band)
        WLOG(WLOG_DEBUG, VX_SRC, "Fail to get Band from hosts, Connection typ=%s\n", type.c_str());
    setInt(host, "X_OLVEX_Band", band);
    static const int32_t oid = wHttpOidByName("RDM_OID_WIFI_RADIO");
    objIndex_t iid{};
    json_object* radio = nullptr;
    while (wcfgFeObjJsonGetNext(oid, &iid, &radio) == WCFG_SUCCESS) {
        JsonPtr owned(radio);
        std::string freq = jsonString(radio, "OperatingFrequencyBand");
        if (freq == "2.4GHz")
            setInt(host, "X_OLVEX_Channel_24G", intOf(radio, "Channel"));
        else if (freq == "5GHz")
            setInt(host, "X_OLVEX_Channel_5G", intOf(radio, "Channel"));
    }
}

// In a mode other than router: whether the host is the default gateway
// (1), or the routing table cannot be read (-1).
int isGateway(json_object* host) {
    static const int32_t oid = wHttpOidByName("RDM_OID_ROUTING_ROUTER_V4_FWD");
    objIndex_t iid{};
    json_object* route = nullptr;
    int ret = wcfgFeObjJsonGetNext(oid, &iid, &route);
    if (ret != WCFG_SUCCESS) {
        WLOG(WLOG_ERR, VX_SRC, "Get RDM_OID_ROUTING_ROUTER_V4_FWD Object failed: %d", ret);
        return -1;
    }
    JsonPtr owned(route);
    std::string gw = jsonString(route, "GatewayIPAddress");
    if (gw != jsonString(host, "IPAddress"))
        return 0;
    WLOG(WLOG_DEBUG, VX_SRC, "%s() match gateway IP: %s\n", "vxHostsHostGet", gw.c_str());
    return 1;
}

// The database row of the host: column 3 for a mesh node, column 4 for any
// other device, compared exactly (letter case counts); 0 when none.
int findRow(const std::string& mac) {
    VxHostTable t = vxHostsTable();
    for (int row = 1; row <= t.rows; ++row) {
        if (vxDevscoutColumn(row, vxDevscoutIsNode(row) ? 3 : 4, "") == mac) {
            WLOG(WLOG_DEBUG, VX_SRC, "%s() found!\n", "vxHostsHostGet");
            return row;
        }
    }
    return 0;
}

// The Ethernet port a wired host hangs on.
void addPortKeys(json_object* host) {
    unsigned char n = 0;
    const char* layer = jsonString(host, "Layer1Interface");
    if (!strstr(layer, "Device.Ethernet.") ||
        sscanf(layer, "Device.Ethernet.Interface.%hhu", &n) != 1)
        return;
    objIndex_t iid{};
    iid.level = 1;
    iid.idx[0] = n;
    json_object* port = nullptr;
    if (wcfgFeObjJsonGet(wHttpOidByName("RDM_OID_ETH_IFACE"), &iid, &port) != WCFG_SUCCESS) {
        if (port)
            json_object_put(port);
        return;
    }
    JsonPtr owned(port);
    setText(host, "Layer1IntfName", jsonString(port, "X_OLVEX_LanPort"));
    setText(host, "Layer1IntfCurBitRate", std::to_string(intOf(port, "CurrentBitRate")));
    setText(host, "Layer1IntfDuplexMode", jsonString(port, "DuplexMode"));
}

// What the database row adds; a host on the gateway's own Wi-Fi takes its
// RSSI from the association lists.
void addDatabaseKeys(json_object* host, int row, const std::string& mac) {
    setText(host, "X_OLVEX_Neighbor", vxDevscoutColumn(row, 10, "unknown"));
    setInt(host, "X_OLVEX_Conn_Guest", atoi(vxDevscoutColumn(row, 19, "0").c_str()));
    if (int band = atoi(vxDevscoutColumn(row, 27, "0").c_str()))
        setInt(host, "X_OLVEX_Band", band);
    if (int ch = atoi(vxDevscoutChannel(row, "24G").c_str()))
        setInt(host, "X_OLVEX_Channel_24G", ch);
    if (int ch = atoi(vxDevscoutChannel(row, "5G").c_str()))
        setInt(host, "X_OLVEX_Channel_5G", ch);
    if (intOf(host, "X_OLVEX_RSSI") == 0)
        setInt(host, "X_OLVEX_RSSI", atoi(vxDevscoutColumn(row, 15, "0").c_str()));
    if (!strcmp(jsonString(host, "X_OLVEX_ConnectedAP"), "Gateway") &&
        !strcmp(jsonString(host, "InterfaceType"), "Wi-Fi")) {
        if (int rssi = vxHostsAssocRssi(mac, vxDevscoutIsNode(row)))
            setInt(host, "X_OLVEX_RSSI", rssi);
    }
}

// "Good" or "Weak": by the link-quality object's threshold when it is on for
// clients, else below -78 dBm is weak.  -3 when the object cannot be read.
int addSignalClass(json_object* host) {
    static const int32_t oid = wHttpOidByName("RDM_OID_LINK_QUALITY");
    JsonPtr owned = wHttpGetObject(oid, false);
    if (!owned)
        return WCFG_ERROR_PARAMETER_TYPE;
    json_object* lq = owned.get();
    json_object* enable = nullptr;
    bool own = json_object_object_get_ex(lq, "Enable", &enable) &&
               json_object_get_boolean(enable) &&
               !strcmp(jsonString(lq, "X_OLVEX_CapabilityType"), "Client");
    int64_t weak = own ? intOf(lq, "Weak") : -78;
    (void)intOf(lq, "TooClose");  // read, never used: no host is "TooClose"
    setText(host, "X_OLVEX_RSSI_STAT", intOf(host, "X_OLVEX_RSSI") < weak ? "Weak" : "Good");
    return WCFG_SUCCESS;
}

void fixHostName(json_object* host, const std::string& mac, bool node) {
    std::string name = jsonString(host, "HostName");
    if (vxOperationMode() != 0 && (name.empty() || name == "Unknown") && !node)
        name = mac;
    if (name.empty() || name == "*")
        name = "Unknown";
    setText(host, "HostName", name);
}

// Hosts that describe nothing useful are replaced by the marker.
void markEmpty(json_object** out) {
    const char* mac = jsonString(*out, "PhysAddress");
    bool other = !strcmp(jsonString(*out, "X_OLVEX_ConnectionType"), "Other");
    if (*mac && !other)
        return;
    wos_pk(*mac ? "[%s] EMPTY_INSTANCE 3\n" : "[%s] EMPTY_INSTANCE 2\n", "vxHostsHostGet");
    json_object_put(*out);
    *out = json_object_new_object();
    json_object_object_add(*out, "_EmptyInstance", json_object_new_boolean(1));
}

}  // namespace

int vxHostsHostGet(const char* path, int /*row*/, json_object** out) {
    refreshHosts();
    int ret = wHttpGetTR181ObjGeneric(path, out);
    if (ret != WCFG_SUCCESS)
        return ret;
    vxDevscoutLoadDevices();
    json_object* host = *out;
    std::string mac = jsonString(host, "PhysAddress");
    std::string type = jsonString(host, "X_OLVEX_ConnectionType");
    if (type.find("Wi-Fi") != std::string::npos)
        addWifiKeys(host, type);
    if (vxOperationMode() != 0) {
        int gw = isGateway(host);
        if (gw != 0)
            return gw < 0 ? WCFG_ERROR_PARAMETER_TYPE : WCFG_SUCCESS;
    }
    if (vxHostsTable().columns != kDevscoutColumns) {
        wos_pk("\n===\nDevscout database table columns not correct.\n===\n\n");
        return WCFG_INVALID_PARAM_VALUE_LENGTH;
    }
    int row = findRow(mac);
    setInt(host, "X_OLVEX_DHCPLeaseTime",
           atoll(vxHostsLeaseTime(mac, jsonString(host, "IPAddress")).c_str()));
    addPortKeys(host);
    if (row)
        addDatabaseKeys(host, row, mac);
    if ((ret = addSignalClass(host)) != WCFG_SUCCESS)
        return ret;
    fixHostName(host, mac, row && vxDevscoutIsNode(row));
    WLOG(WLOG_DEBUG, VX_SRC, "[%s] tr181Obj = %s\n", __func__, json_object_to_json_string(host));
    markEmpty(out);
    return WCFG_SUCCESS;
}
