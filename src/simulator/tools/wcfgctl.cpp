// wcfgctl: command-line tool of the embedded platform.  It works on the same
// configuration store as the daemon, at any time, also while the daemon runs.
// Invoked under the name of a stand-in shell tool it acts as that tool.
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "device/dm_def.h"
#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/standins/provision.h"
#include "simulator/standins/firmware_image.h"
#include "simulator/standins/knobs.h"
#include "simulator/standins/standin.h"
#include "device/wcfg.h"
#include "simulator/bus/wcfg_msg.h"
#include "simulator/store/store.h"

namespace {

const char* kUsage =
    "usage: wcfgctl COMMAND [ARGS]\n"
    "  init                     create a complete device root below $WHTTPD_ROOT\n"
    "  get TARGET               print an object instance, or every instance of a table\n"
    "  set TARGET JSON          write parameters (read-only ones too) and apply\n"
    "  add TARGET [JSON]        add an instance to a table (with its values, in one\n"
    "                           write); prints its path\n"
    "  del TARGET               delete an instance\n"
    "  passwd USER PASSWORD     set an account's password\n"
    "  reset                    restore the default configuration\n"
    "  notify                   send the data-model-changed notice to the daemon\n"
    "  requests [--clear]       list the requests and tool calls the platform received\n"
    "  mkimage FILE VERSION [MODEL]  write a firmware image for this device\n"
    "  knob NAME [VALUE]        show or set a knob of the stand-in services (\"\" unsets):\n"
    "                           wifi.wps.walk_seconds, wifi.wps.outcome (timeout|success|\n"
    "                           error), wifi.wps.forced_status, wifi.wps.reply (normal|none|\n"
    "                           kind1|error), wifi.wps.delay_ms, net.internet_reachable,\n"
    "                           bwm.frozen\n"
    "TARGET is a TR-181 path (Device.NAT.PortMapping.1.) or an object-id name with\n"
    "instance numbers (RDM_OID_VX_LOG_CFG_GP_ACCOUNT.2.1).\n";

int fail(const char* what, int code = 0) {
    if (code)
        fprintf(stderr, "wcfgctl: %s (code %d)\n", what, code);
    else
        fprintf(stderr, "wcfgctl: %s\n", what);
    return 1;
}

// Resolves TARGET; `forAdd` asks for the record of a new instance.
int32_t resolve(const std::string& target, objIndex_t& iid, bool forAdd) {
    iid = objIndex_t{};
    if (target.rfind("RDM_OID_", 0) == 0) {
        size_t dot = target.find('.');
        int32_t oid = wdm::model().idOf(target.substr(0, dot));
        const wdm::Object* o = wdm::model().byId(oid);
        if (!o)
            return -1;
        while (dot != std::string::npos && iid.level < 6) {
            size_t next = target.find('.', dot + 1);
            std::string n =
                target.substr(dot + 1, next == std::string::npos ? next : next - dot - 1);
            if (!n.empty())
                iid.idx[iid.level++] = static_cast<uint8_t>(atoi(n.c_str()));
            dot = next;
        }
        if (forAdd && iid.level + 1 == o->depth)
            iid.idx[iid.level++] = 0;
        return oid;
    }
    std::string path = target;
    if (forAdd) {
        if (path.empty() || path.back() != '.')
            path += '.';
        path += 'i';
    }
    return wcfgFeObjNameToObjId(path.c_str(), &iid);
}

json_object* parseJson(const char* text) {
    json_object* v = json_tokener_parse(text);
    if (!v || !json_object_is_type(v, json_type_object)) {
        json_object_put(v);
        return nullptr;
    }
    return v;
}

void printJson(json_object* v) {
    printf("%s\n", json_object_to_json_string_ext(
                       v, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
}

int cmdGet(const std::string& target) {
    objIndex_t iid;
    int32_t oid = resolve(target, iid, false);
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o)
        return fail("no such object");
    json_object* out = nullptr;
    if (iid.level == o->depth) {
        int rc = wcfgFeObjJsonGetWithoutUpdate(oid, &iid, &out);
        if (rc)
            return fail("get failed", rc);
        JsonPtr owned(out);
        printJson(out);
        return 0;
    }
    // A table named without its instance number: every instance below the
    // given parent, by path.
    JsonPtr all(json_object_new_object());
    objIndex_t parent = iid;
    objIndex_t cur = iid;
    while (wcfgFeObjJsonGetNextWithoutUpdate(oid, &cur, &out) == WCFG_SUCCESS) {
        if (memcmp(cur.idx, parent.idx, parent.level) != 0) {
            json_object_put(out);
            break;
        }
        json_object_object_add(all.get(), wcfg::instancePath(*o, cur).c_str(), out);
    }
    printJson(all.get());
    return 0;
}

// wcfgctl writes as the device's own administrator: read-only parameters
// too, and every write applied and announced.
wcfg::WriteMode adminWrite() {
    wcfg::WriteMode mode;
    mode.apply = mode.notify = mode.readOnly = true;
    return mode;
}

int writeFailed(const char* what, int rc) {
    if (rc == WCFG_REQUEST_REJECT)
        fprintf(stderr, "wcfgctl: account passwords change only with `wcfgctl passwd`\n");
    return fail(what, rc);
}

int cmdSet(const std::string& target, const char* json) {
    objIndex_t iid;
    int32_t oid = resolve(target, iid, false);
    if (oid < 0)
        return fail("no such object");
    JsonPtr values(parseJson(json));
    if (!values)
        return fail("values must be a JSON object");
    int rc = wcfg::Store::instance().set(oid, &iid, values.get(), adminWrite());
    return rc ? writeFailed("set failed", rc) : 0;
}

int cmdAdd(const std::string& target, const char* json) {
    objIndex_t iid;
    int32_t oid = resolve(target, iid, true);
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o)
        return fail("no such object");
    JsonPtr values;
    if (json && !(values = JsonPtr(parseJson(json))))
        return fail("values must be a JSON object");
    // The instance and its values are one write: both or neither.
    int rc = wcfg::Store::instance().add(oid, &iid, values.get(), adminWrite());
    if (rc)
        return writeFailed("add failed", rc);
    printf("%s\n", wcfg::instancePath(*o, iid).c_str());
    return 0;
}

int cmdDel(const std::string& target) {
    objIndex_t iid;
    int32_t oid = resolve(target, iid, false);
    if (oid < 0)
        return fail("no such object");
    int rc = wcfg::Store::instance().del(oid, &iid, adminWrite());
    return rc ? fail("delete failed", rc) : 0;
}

int cmdPasswd(const char* user, const char* password) {
    int32_t oid = wdm::model().idOf("RDM_OID_VX_LOG_CFG_GP_ACCOUNT");
    objIndex_t iid{};
    json_object* obj = nullptr;
    while (wcfgFeObjJsonGetNextWithoutUpdate(oid, &iid, &obj) == WCFG_SUCCESS) {
        JsonPtr owned(obj);
        if (jsonText(obj, "Username") != user)
            continue;
        if (!*password)
            return fail("the password must not be empty");
        JsonPtr values(json_object_new_object());
        json_object_object_add(values.get(), "Password", json_object_new_string(password));
        wcfg::WriteMode mode = adminWrite();
        mode.secrets = true;
        int rc = wcfg::Store::instance().set(oid, &iid, values.get(), mode);
        return rc ? fail("passwd failed", rc) : 0;
    }
    return fail("no such account");
}

int cmdRequests(bool clear) {
    std::string file = standin::journalPath();
    if (clear) {
        unlink(file.c_str());
        return 0;
    }
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line))
        printf("%s\n", line.c_str());
    return 0;
}

int cmdMkimage(const char* file, const char* version, const char* model) {
    std::string body = "OLVEX firmware " + std::string(version) + "\n";
    for (int i = 0; i < 4096; ++i)
        body += static_cast<char>('a' + i % 26);
    std::string img = standin::makeImage(model ? model : "NX5150", version, body);
    if (img.empty())
        return fail("cannot sign the image (no vendor image key; run wcfgctl init)");
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << img;
    return out ? 0 : fail("cannot write the image");
}

}  // namespace

int main(int argc, char** argv) {
    standin::install();
    int tool = standin::runTool(argc, argv);
    if (tool >= 0)
        return tool;
    if (argc < 2) {
        fputs(kUsage, stderr);
        return 2;
    }
    platformInit();
    std::string cmd = argv[1];
    if (cmd == "init" && argc == 2) {
        char self[PATH_MAX];
        ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        if (n <= 0)
            return fail("cannot find this program");
        self[n] = '\0';
        std::string err;
        if (!provision::initDeviceRoot(self, err))
            return fail(err.c_str());
        printf("device root ready: %s\n", platformRoot().c_str());
        return 0;
    }
    if (cmd == "get" && argc == 3)
        return cmdGet(argv[2]);
    if (cmd == "set" && argc == 4)
        return cmdSet(argv[2], argv[3]);
    if (cmd == "add" && (argc == 3 || argc == 4))
        return cmdAdd(argv[2], argc == 4 ? argv[3] : nullptr);
    if (cmd == "del" && argc == 3)
        return cmdDel(argv[2]);
    if (cmd == "passwd" && argc == 4)
        return cmdPasswd(argv[2], argv[3]);
    if (cmd == "reset" && argc == 2) {
        int rc = wcfgFeReqSend(WCFG_REQ_RESET, nullptr);
        return rc ? fail("reset failed", rc) : 0;
    }
    if (cmd == "notify" && argc == 2) {
        wcfgMsgHdr_t hdr{};
        hdr.type = WCFG_MSG_DATA_MODEL_CHANGED;
        hdr.srcEid = 1;
        hdr.dstEid = WCFG_EID_WHTTPD;
        int rc = wcfg_msg_send(WCFG_EID_WHTTPD, &hdr, sizeof hdr);
        return rc ? fail("the daemon's bus endpoint does not answer", rc) : 0;
    }
    if (cmd == "requests" && (argc == 2 || (argc == 3 && !strcmp(argv[2], "--clear"))))
        return cmdRequests(argc == 3);
    if (cmd == "knob" && argc == 3) {
        printf("%s\n", standin::knob(argv[2], "").c_str());
        return 0;
    }
    if (cmd == "knob" && argc == 4)
        return standin::setKnob(argv[2], argv[3]) ? 0 : fail("cannot write the knobs");
    if (cmd == "mkimage" && (argc == 4 || argc == 5))
        return cmdMkimage(argv[2], argv[3], argc == 5 ? argv[4] : nullptr);
    fputs(kUsage, stderr);
    return 2;
}
