// The host table's refresh: what a read "with update" of Device.Hosts. makes
// the configuration service do.  The hosts are rebuilt from what the
// device's other services know: the DHCP leases, the access points'
// association lists and the mesh's host-probe database.  A MAC keeps its
// instance; a new one gets a new instance; a host no source mentions any more
// stays, inactive.  Names and values that someone set are left alone: the
// refresh fills what is empty and follows what the Wi-Fi lists measure.
#include <sqlite3.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/standins/standin.h"
#include "simulator/store/store.h"

namespace standin {

namespace {

// What the sources say about one MAC.
struct Seen {
    std::string ip, name;
    std::string wifiType;     // "Wi-Fi 2.4GHz" / "Wi-Fi 5GHz" when associated
    std::string connectedAP;  // "Gateway" or the mesh node it hangs on
    int rssi = 0;             // from an association list
};
using SeenMap = std::map<std::string, Seen>;

std::string upper(std::string s) {
    for (char& c : s)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return s;
}

void readLeases(SeenMap& seen) {
    FILE* f = fopen(platformPath("/var/dnsmasq/dnsmasq.leases").c_str(), "r");
    if (!f)
        return;
    char line[256];
    while (fgets(line, sizeof line, f)) {
        char mac[64], ip[64], name[128];
        if (sscanf(line, "%*s %*s %63s %63s %127s", mac, ip, name) == 3) {
            Seen& s = seen[upper(mac)];
            s.ip = ip;
            s.name = name;
        }
    }
    fclose(f);
}

void readAssocLists(SeenMap& seen) {
    const std::pair<const char*, const char*> lists[] = {{"/tmp/assoc_list.24g", "Wi-Fi 2.4GHz"},
                                                         {"/tmp/assoc_list.5g", "Wi-Fi 5GHz"}};
    for (const auto& [file, type] : lists) {
        FILE* f = fopen(platformPath(file).c_str(), "r");
        if (!f)
            continue;
        char line[128];
        while (fgets(line, sizeof line, f)) {
            char mac[18];
            int seconds = 0, rssi = 0;
            if (sscanf(line, "%17s  %10d  %4d ", mac, &seconds, &rssi) != 3)
                continue;
            Seen& s = seen[upper(mac)];
            s.wifiType = type;
            s.connectedAP = "Gateway";
            s.rssi = rssi;
        }
        fclose(f);
    }
}

// Devices of the host-probe database; the interfaces of mesh nodes (and the
// gateway itself) are no hosts of their own.
void readProbeDatabase(SeenMap& seen, std::set<std::string>& notHosts) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(platformPath("/tmp/devscout.db").c_str(), &db, SQLITE_OPEN_READONLY,
                        nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return;
    }
    sqlite3_busy_timeout(db, 1000);
    char base[32] = "";
    vxUtilIGetBaseMACwithColon(base, sizeof base);
    notHosts.insert(base);
    std::map<std::string, std::string> nodeNames;
    auto each = [&](const char* sql, auto&& fn) {
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) != SQLITE_OK)
            return;
        while (sqlite3_step(s) == SQLITE_ROW) {
            auto col = [&](int i) {
                const unsigned char* t = sqlite3_column_text(s, i);
                return std::string(t ? reinterpret_cast<const char*>(t) : "");
            };
            fn(col);
        }
        sqlite3_finalize(s);
    };
    each("SELECT IntfMAC FROM SubIntf;", [&](auto& col) { notHosts.insert(upper(col(0))); });
    each("SELECT ALMac, DevName FROM Device WHERE DevType='L2Device';",
         [&](auto& col) { nodeNames[upper(col(0))] = col(1); });
    each("SELECT DevType, DevName, IPAddr, ALMac, IntfMac, Neighbor FROM Device;", [&](auto& col) {
        std::string mac = upper(col(0) == "L2Device" ? col(3) : col(4));
        if (mac.empty() || notHosts.count(mac))
            return;
        Seen& s = seen[mac];
        if (s.ip.empty())
            s.ip = col(2);
        if (s.name.empty())
            s.name = col(1);
        auto node = nodeNames.find(upper(col(5)));
        if (s.connectedAP.empty() && node != nodeNames.end() && node->first != base)
            s.connectedAP = node->second;
    });
    sqlite3_close(db);
}

void put(json_object* v, const char* key, const std::string& text) {
    json_object_object_add(v, key, json_object_new_string(text.c_str()));
}

// The changes a host needs for what was seen of it (nullptr when none).
JsonPtr changesFor(json_object* host, const Seen* seen) {
    JsonPtr v(json_object_new_object());
    json_object* active = nullptr;
    bool wasActive =
        json_object_object_get_ex(host, "Active", &active) && json_object_get_boolean(active);
    if (wasActive != (seen != nullptr)) {
        json_object_object_add(v.get(), "Active", json_object_new_boolean(seen != nullptr));
        put(v.get(), "ActiveLastChange", platformNowIso());
    }
    if (seen) {
        if (!*jsonString(host, "IPAddress") && !seen->ip.empty())
            put(v.get(), "IPAddress", seen->ip);
        if (!*jsonString(host, "HostName") && !seen->name.empty())
            put(v.get(), "HostName", seen->name);
        if (!seen->wifiType.empty()) {
            if (seen->wifiType != jsonString(host, "X_OLVEX_ConnectionType"))
                put(v.get(), "X_OLVEX_ConnectionType", seen->wifiType);
            json_object* rssi = nullptr;
            if (!json_object_object_get_ex(host, "X_OLVEX_RSSI", &rssi) ||
                json_object_get_int(rssi) != seen->rssi)
                json_object_object_add(v.get(), "X_OLVEX_RSSI", json_object_new_int(seen->rssi));
        }
    }
    return json_object_object_length(v.get()) ? std::move(v) : nullptr;
}

// A new host as the sources describe it.
JsonPtr newHost(const std::string& mac, const Seen& s) {
    JsonPtr v(json_object_new_object());
    put(v.get(), "PhysAddress", mac);
    put(v.get(), "IPAddress", s.ip);
    put(v.get(), "HostName", s.name);
    put(v.get(), "Layer3Interface", "Device.IP.Interface.1");
    put(v.get(), "InterfaceType", s.wifiType.empty() ? "Ethernet" : "Wi-Fi");
    put(v.get(), "X_OLVEX_ConnectionType", s.wifiType.empty() ? "Ethernet" : s.wifiType);
    put(v.get(), "X_OLVEX_ConnectedAP", s.connectedAP.empty() ? "Gateway" : s.connectedAP);
    json_object_object_add(v.get(), "X_OLVEX_RSSI", json_object_new_int(s.rssi));
    json_object_object_add(v.get(), "Active", json_object_new_boolean(1));
    put(v.get(), "ActiveLastChange", platformNowIso());
    return v;
}

}  // namespace

void refreshHosts() {
    static std::mutex serial;  // one refresh at a time, or two would add one MAC twice
    std::lock_guard<std::mutex> lock(serial);
    SeenMap seen;
    std::set<std::string> notHosts;
    readLeases(seen);
    readAssocLists(seen);
    readProbeDatabase(seen, notHosts);
    wcfg::Store& store = wcfg::Store::instance();
    WcfgCallerScope device(WCFG_CALLER_DEVICE);
    wcfg::WriteMode mode;
    mode.readOnly = true;
    int32_t oid = wdm::model().idOf("RDM_OID_HOSTS_HOST");
    objIndex_t iid{};
    json_object* host = nullptr;
    std::set<std::string> known;
    while (store.getNext(oid, &iid, &host, false) == WCFG_SUCCESS) {
        JsonPtr owned(host);
        std::string mac = jsonString(host, "PhysAddress");
        known.insert(mac);
        auto it = seen.find(mac);
        if (JsonPtr v = changesFor(host, it == seen.end() ? nullptr : &it->second)) {
            objIndex_t rec = iid;
            store.set(oid, &rec, v.get(), mode);
        }
    }
    for (const auto& [mac, s] : seen) {
        if (known.count(mac) || notHosts.count(mac))
            continue;
        objIndex_t rec{};
        rec.level = 1;
        JsonPtr v = newHost(mac, s);
        store.add(oid, &rec, v.get(), mode);
    }
}

}  // namespace standin
