// Preparing a device root for the virtual router and the tests.
#include "simulator/standins/provision.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "device/dm_def.h"
#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/standins/device_cert.h"
#include "simulator/standins/firmware_image.h"
#include "simulator/standins/standin.h"
#include "simulator/store/store.h"

namespace provision {

namespace {

const char* const kOpensslCnf =
    "# OpenSSL configuration for the device's self-signed HTTPS certificate\n"
    "[ req ]\n"
    "distinguished_name = req_dn\n"
    "prompt = no\n"
    "x509_extensions = v3_ca\n"
    "\n"
    "[ req_dn ]\n"
    "C = US\n"
    "O = OLVEX\n"
    "CN = NX5150\n"
    "\n"
    "[ v3_ca ]\n"
    "basicConstraints = critical,CA:true\n"
    "subjectKeyIdentifier = hash\n"
    "subjectAltName = DNS:localhost,IP:127.0.0.1,IP:::1\n";

const char* const kFactory =
    "{\"BaseMAC\": \"02:10:18:3A:5C:00\", \"SerialNumber\": \"S240Y00012345\", "
    "\"ModelName\": \"NX5150\", \"SoftwareVersion\": \"V1.20(ABCD.7)C0\"}\n";

bool writeFile(const std::string& absPath, const std::string& content) {
    return platformReplaceFile(platformPath(absPath.c_str()), content, 0644);
}

json_object* schemaNode(const wdm::Object& o) {
    const wdm::Model& m = wdm::model();
    json_object* node = json_object_new_object();
    json_object_object_add(node, "_Node",
                           json_object_new_string(o.table ? "index_object" : "object"));
    if (o.table) {
        json_object_object_add(node, "_MaxLength", json_object_new_int(o.maxInst));
        json_object_object_add(node, "_Attribute",
                               json_object_new_string(o.create ? "read write create" : "read"));
    }
    for (const wdm::Param& p : o.params) {
        if (p.hidden)
            continue;
        json_object* pn = json_object_new_object();
        json_object_object_add(pn, "_Node", json_object_new_string("parameter"));
        json_object_object_add(pn, "_Type", json_object_new_string(p.schemaType.c_str()));
        json_object_object_add(pn, "_Attribute",
                               json_object_new_string(p.writeOnly  ? "write"
                                                      : p.writable ? "read write"
                                                                   : "read"));
        json_object_object_add(node, p.name.c_str(), pn);
    }
    for (int c : o.children)
        json_object_object_add(node, m.objects[c].name.c_str(), schemaNode(m.objects[c]));
    return node;
}

std::string packRates(int32_t rx, int32_t tx) {
    std::string s(8, '\0');
    memcpy(&s[0], &rx, 4);
    memcpy(&s[4], &tx, 4);
    return s;
}

}  // namespace

json_object* buildSchema() {
    const wdm::Object* root = wdm::model().byPathForm("Device.");
    json_object* schema = json_object_new_object();
    if (root)
        json_object_object_add(schema, "Device", schemaNode(*root));
    return schema;
}

bool writeHostDatabase(std::string& err) {
    std::string file = platformPath("/tmp/devscout.db");
    std::string tmp = file + ".new";
    unlink(tmp.c_str());
    sqlite3* db = nullptr;
    if (sqlite3_open(tmp.c_str(), &db) != SQLITE_OK) {
        err = "cannot create " + tmp;
        sqlite3_close(db);
        return false;
    }
    const char* sql =
        "BEGIN;"
        "CREATE TABLE Device(DevType TEXT, DevName TEXT, IPAddr TEXT, ALMac TEXT, IntfMac TEXT,"
        " Vendor TEXT, OS TEXT, ModelName TEXT, Manufacturer TEXT, ConnType TEXT, Neighbor TEXT,"
        " LastSeen TEXT, FirstSeen TEXT, Online TEXT, UpTime TEXT, RSSI TEXT, LinkRate TEXT,"
        " NodeInfo TEXT, Hops TEXT, ConnGuest TEXT, TxBytes TEXT, RxBytes TEXT, TxRate TEXT,"
        " RxRate TEXT, SSID TEXT, BSSID TEXT, Channel TEXT, Band TEXT, Reserved TEXT);"
        "CREATE TABLE DevFunc(ALMac TEXT PRIMARY KEY, Channel_24G TEXT, Channel_5G TEXT,"
        " Role TEXT, FWVersion TEXT);"
        "CREATE TABLE SubIntf(IntfMAC TEXT PRIMARY KEY, ALMac TEXT, Band TEXT);"
        "INSERT INTO Device VALUES('L2Device','NX5150','192.168.1.1','02:10:18:3A:5C:00',"
        " '02:10:18:3A:5C:00','OLVEX','Linux','NX5150','OLVEX','Ethernet','unknown','1700000000',"
        " '1700000000','1','86400','0','1000','{\"FirmwareVersion\":\"V1.20(ABCD.7)C0\","
        "\"NewfirmwareUpgradeState\":0}','0','0','0','0','0','0','','','0','0','');"
        "INSERT INTO Device VALUES('L2Device','NX5150-EXT','192.168.1.40','02:10:18:3A:6D:00',"
        " '06:10:18:3A:6D:03','OLVEX','Linux','NX5150','OLVEX','Wi-Fi','02:10:18:3A:5C:00',"
        " '1700000000','1700000000','1','86000','-48','1201','{\"FirmwareVersion\":"
        "\"V1.20(ABCD.7)C0\",\"NewfirmwareUpgradeState\":0}','1','0','912345','1834567','1201',"
        " '1201','OLVEX-5C00-5G','02:10:18:3A:5C:03','36','2','');"
        "INSERT INTO Device VALUES('EndDevice','desktop-pc','192.168.1.33','','02:AA:00:00:00:01',"
        " 'Intel','Windows','','','Ethernet','02:10:18:3A:5C:00','1700000000','1699990000','1',"
        " '36000','0','1000','','1','0','120000','890000','1000','1000','','','0','0','');"
        "INSERT INTO Device VALUES('EndDevice','phone','192.168.1.34','','02:AA:00:00:00:02',"
        " 'Apple','iOS','','','Wi-Fi','02:10:18:3A:5C:00','1700000000','1699990000','1','3600',"
        " '-55','144','','1','0','45000','230000','144','86','OLVEX-5C00','02:10:18:3A:5C:02',"
        " '6','1','');"
        "INSERT INTO Device VALUES('EndDevice','laptop','192.168.1.35','','02:AA:00:00:00:03',"
        " 'Dell','Linux','','','Wi-Fi','02:10:18:3A:6D:00','1700000000','1699990000','1','7200',"
        " '-61','866','','2','0','98000','512000','866','650','OLVEX-5C00-5G',"
        " '06:10:18:3A:6D:05','36','2','');"
        "INSERT INTO Device VALUES('EndDevice','plug','192.168.2.20','','02:AA:00:00:00:05',"
        " 'Espressif','','','','Wi-Fi','02:10:18:3A:5C:00','1700000000','1699990000','1','600',"
        " '-80','26','','1','1','1200','3400','26','13','OLVEX-Guest','02:10:18:3A:5C:04','6','1','"
        "');"
        "INSERT INTO DevFunc VALUES('02:10:18:3A:5C:00','6','36','Controller','V1.20(ABCD.7)C0');"
        "INSERT INTO DevFunc VALUES('02:10:18:3A:6D:00','6','36','Agent','V1.20(ABCD.7)C0');"
        "INSERT INTO SubIntf VALUES('06:10:18:3A:6D:03','02:10:18:3A:6D:00','2');"
        "INSERT INTO SubIntf VALUES('02:10:18:3A:6D:02','02:10:18:3A:6D:00','1');"
        "INSERT INTO SubIntf VALUES('02:10:18:3A:5C:02','02:10:18:3A:5C:00','1');"
        "INSERT INTO SubIntf VALUES('02:10:18:3A:5C:03','02:10:18:3A:5C:00','2');"
        "COMMIT;";
    char* msg = nullptr;
    bool ok = sqlite3_exec(db, sql, nullptr, nullptr, &msg) == SQLITE_OK;
    if (!ok)
        err = std::string("host database: ") + (msg ? msg : "?");
    sqlite3_free(msg);
    sqlite3_close(db);
    return ok && rename(tmp.c_str(), file.c_str()) == 0;
}

// The HTTPS pair, as the device's provisioning lays it down before the daemon
// starts; a pair already there is kept (a client may have pinned it).
static bool provideCertificate(std::string& err) {
    const char* cert = "/data/CA/newreq.crt";
    const char* key = "/data/CA/newreq.key";
    if (access(platformPath(cert).c_str(), F_OK) == 0 &&
        access(platformPath(key).c_str(), F_OK) == 0)
        return true;
    return standin::makeDeviceCertificate(cert, key, err);
}

bool initDeviceRoot(const std::string& self, std::string& err) {
    for (const char* d : {"/etc/config", "/data/factory", "/data/wcfg", "/data/CA", "/tmp",
                          "/var/run/wcfg", "/var/dnsmasq", "/var/log/standin"}) {
        if (!platformMakeDirs(platformPath(d))) {
            err = std::string("cannot create ") + platformPath(d);
            return false;
        }
    }
    // Unmarked until the last step: a provisioning cut short is done again.
    unlink(platformPath(kProvisionedMark).c_str());
    if (!writeFile("/data/factory/device.json", kFactory))
        return err = "factory data", false;

    for (const char* f :
         {"/data/wcfg/config.db", "/data/wcfg/config.db-wal", "/data/wcfg/config.db-shm"})
        unlink(platformPath(f).c_str());
    if (!wcfg::Store::instance().isOpen())
        return err = "cannot create the configuration store", false;

    JsonPtr schema(buildSchema());
    if (!writeFile("/etc/wcfg_REST_API_schema.json",
                   json_object_to_json_string_ext(schema.get(), JSON_C_TO_STRING_PRETTY)))
        return err = "cannot write the REST schema", false;
    if (!writeFile("/etc/config/openssl.cnf", kOpensslCnf))
        return err = "cannot write openssl.cnf", false;
    if (!provideCertificate(err))
        return false;
    if (!writeHostDatabase(err))
        return false;

    unsigned long up = platformUptimeSeconds();
    char leases[512];
    snprintf(leases, sizeof leases,
             "%lu 86400 02:aa:00:00:00:01 192.168.1.33 desktop-pc 01:02:aa:00:00:00:01\n"
             "%lu 86400 02:aa:00:00:00:02 192.168.1.34 phone 01:02:aa:00:00:00:02\n"
             "%lu 86400 02:aa:00:00:00:03 192.168.1.35 laptop 01:02:aa:00:00:00:03\n"
             "%lu 86400 02:10:18:3a:6d:00 192.168.1.40 NX5150-EXT 01:02:10:18:3a:6d:00\n"
             "%lu 3600 02:aa:00:00:00:05 192.168.2.20 * 01:02:aa:00:00:00:05\n",
             up > 600 ? up - 600 : 0, up > 1200 ? up - 1200 : 0, up > 300 ? up - 300 : 0,
             up > 60 ? up - 60 : 0, up > 900 ? up - 900 : 0);
    bool ok =
        writeFile("/var/dnsmasq/dnsmasq.leases", leases) &&
        writeFile("/tmp/wan_info", "Enable 100.64.12.34 02:10:18:3A:5C:01 eth4\n") &&
        writeFile("/tmp/bwm_result", packRates(23000, 4100)) &&
        writeFile("/tmp/assoc_list.24g",
                  "02:AA:00:00:00:02  0000000360  -52 \n02:AA:00:00:00:05  0000000120  -80 \n") &&
        writeFile("/tmp/assoc_list.5g", "06:10:18:3A:6D:03  0000003600  -47 \n");
    if (!ok)
        return err = "cannot write the status files", false;
    if (!standin::createImageKeys())
        return err = "cannot create the vendor's image key", false;
    if (!standin::installTools(self))
        return err = "cannot install the stand-in tools", false;
    if (!writeFile(kProvisionedMark, "provisioned\n"))
        return err = "cannot mark the device root as provisioned", false;
    return true;
}

}  // namespace provision
