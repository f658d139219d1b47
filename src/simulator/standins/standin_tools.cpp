// Stand-ins of the shell tools the daemon runs: the mesh status and action
// tools, killall, kill and ifconfig.  They are links to the multi-call wcfgctl
// binary in the device root's tool directory; they log what they are asked in
// the journal and never signal a process.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "device/dm_def.h"
#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/standins/standin.h"
#include "device/wcfg.h"

namespace standin {

namespace {

const char* const kTools[] = {"vxslctl", "vx1905App", "killall", "kill", "ifconfig"};

// Notes the call with every argument exactly as the tool received it (line
// ends and blanks included), so that the journal shows what a caller passed.
void journalTool(const char* tool, int argc, char** argv) {
    JsonPtr entry(json_object_new_object());
    json_object_object_add(entry.get(), "tool", json_object_new_string(tool));
    json_object* args = json_object_new_array();
    for (int i = 1; i < argc; ++i)
        json_object_array_add(args, json_object_new_string(argv[i]));
    json_object_object_add(entry.get(), "args", args);
    journal(entry.get());
}

// Mesh topology from the host-probe database's mesh nodes.
int vxslctl(int argc, char** argv) {
    journalTool("vxslctl", argc, argv);
    if (argc < 2 || strcmp(argv[1], "-t") != 0)
        return 0;
    char base[32] = "";
    vxUtilIGetBaseMACwithColon(base, sizeof base);
    sqlite3* db = nullptr;
    std::string file = platformPath("/tmp/devscout.db");
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return 1;
    }
    printf("Mesh topology\n");
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT ALMac, DevName FROM Device WHERE DevType='L2Device';", -1,
                           &s, nullptr) == SQLITE_OK) {
        while (sqlite3_step(s) == SQLITE_ROW) {
            const char* mac = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
            const char* name = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
            bool self = mac && strcasecmp(mac, base) == 0;
            printf("[%s]%s  Device  %s  %s\n", mac ? mac : "", self ? "*" : "",
                   self ? "Controller" : "Agent", name ? name : "");
        }
    }
    sqlite3_finalize(s);
    sqlite3_close(db);
    return 0;
}

int vx1905App(int argc, char** argv) {
    journalTool("vx1905App", argc, argv);
    if (argc < 3)
        return 1;
    int code = atoi(argv[1]);
    return (code == 2 || code == 10) ? 0 : 1;
}

int killall(int argc, char** argv) {
    journalTool("killall", argc, argv);
    return 0;
}

// The shell's kill, as the virtual router's command runner calls it: noted,
// and no process is ever signalled.
int killTool(int argc, char** argv) {
    journalTool("kill", argc, argv);
    return 0;
}

// net-tools style output for the LAN bridge, from the data model.
int ifconfig(int argc, char** argv) {
    if (argc < 2 || strcmp(argv[1], "br0") != 0) {
        fprintf(stderr, "%s: error fetching interface information: Device not found\n",
                argc > 1 ? argv[1] : "");
        return 1;
    }
    const wdm::Model& m = wdm::model();
    std::string ip, mask, mac;
    objIndex_t iid{};
    json_object* obj = nullptr;
    int32_t ipIf = m.idOf("RDM_OID_IP_IFACE");
    while (wcfgFeObjJsonGetNextWithoutUpdate(ipIf, &iid, &obj) == WCFG_SUCCESS) {
        JsonPtr owned(obj);
        if (strcmp(jsonString(obj, "X_OLVEX_IfName"), "br0") != 0)
            continue;
        objIndex_t a = iid;
        json_object* addr = nullptr;
        if (wcfgFeObjJsonGetNextWithoutUpdate(m.idOf("RDM_OID_IP_IFACE_V4_ADDR"), &a, &addr) == 0) {
            JsonPtr ownedAddr(addr);
            if (a.idx[0] == iid.idx[0])
                ip = jsonString(addr, "IPAddress"), mask = jsonString(addr, "SubnetMask");
        }
        break;
    }
    objIndex_t link{1, {1}};
    json_object* l = nullptr;
    if (wcfgFeObjJsonGetWithoutUpdate(m.idOf("RDM_OID_ETH_LINK"), &link, &l) == WCFG_SUCCESS) {
        JsonPtr owned(l);
        mac = jsonString(l, "MACAddress");
    }
    printf("br0       Link encap:Ethernet  HWaddr %s  \n", mac.c_str());
    printf("          inet addr:%s  Bcast:192.168.1.255  Mask:%s\n", ip.c_str(), mask.c_str());
    printf("          UP BROADCAST RUNNING MULTICAST  MTU:1500  Metric:1\n");
    return 0;
}

}  // namespace

int runTool(int argc, char** argv) {
    if (argc < 1)
        return -1;
    const char* name = strrchr(argv[0], '/');
    name = name ? name + 1 : argv[0];
    if (!strcmp(name, "vxslctl"))
        return vxslctl(argc, argv);
    if (!strcmp(name, "vx1905App"))
        return vx1905App(argc, argv);
    if (!strcmp(name, "killall"))
        return killall(argc, argv);
    if (!strcmp(name, "kill"))
        return killTool(argc, argv);
    if (!strcmp(name, "ifconfig"))
        return ifconfig(argc, argv);
    return -1;
}

bool installTools(const std::string& self) {
    std::string dir = platformToolDir();
    if (!platformMakeDirs(dir))
        return false;
    for (const char* t : kTools) {
        std::string link = dir + "/" + t;
        unlink(link.c_str());
        if (symlink(self.c_str(), link.c_str()) != 0)
            return false;
    }
    return true;
}

}  // namespace standin
