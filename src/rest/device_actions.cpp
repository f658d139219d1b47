// Reboot, MeshReboot, MeshResetAllSetting: the client is answered "Success"
// first, then the device acts, since the action may take it down.
//
// The mesh tool gets an agent's name ("device" of the query, or a line of
// the topology) as one argument of its own, without a shell: no value from a
// client or from the topology is ever interpreted as a command.
#include <cstdio>
#include <cstring>
#include <string>

#include "base/platform.h"
#include "device/commands.h"
#include "base/utf8.h"
#include "datamodel/oid_names.h"
#include "base/json_util.h"
#include "device/wcfg.h"
#include "context/response_writer.h"
#include "rest/device_actions.h"
#include "rest/whttpd_rest.h"

namespace {

const size_t kCommandBuffer = 256;  // the command texts' buffer, NUL included
const char* const kAgentList = "/tmp/tmp_agent_list";
enum { kMeshReboot = 2, kMeshReset = 10 };

// The common start, once the URI table's device-action check (POST or PUT
// with the session key) has passed: "Success" before anything is tried.
void acceptAction(const char* handler, CgHttpRequest* request) {
    const char* uri = cg_http_request_geturi(request);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() fullUri=%s\n", handler, uri);
    json_object* doc = json_object_new_object();
    wHttpSetOperStatus(doc, "Success");
    wHttpJsonResponse_restapi(request, cg_http_response_new(), doc, 0, 0);
}

// "vx1905App <code> <agent>": the agent cut as the 256-byte command buffer
// would cut it, and handed over as one argument.
void tellAgent(int code, std::string agent) {
    char codeText[8];
    snprintf(codeText, sizeof codeText, "%d", code);
    size_t room = kCommandBuffer - 1 - strlen("vx1905App ") - strlen(codeText) - 1;
    if (!utf8Valid(agent)) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "agent name is not UTF-8 text: not told\n");
        return;
    }
    agent.resize(utf8CutLength(agent, room));
    const char* argv[] = {"vx1905App", codeText, agent.c_str(), nullptr};
    if (wos_exec(1, argv) == -1)
        WLOG(WLOG_ERR, WHTTPD_SRC, "fail to run system()");
}

// Whether this device is the mesh's enabled controller.
bool enabledController() {
    static const int32_t oid = wHttpOidByName("RDM_OID_EASY_MESH");
    JsonPtr owned = wHttpGetObject(oid, true);
    if (!owned)
        return false;
    json_object* mesh = owned.get();
    json_object *role = nullptr, *enable = nullptr;
    return json_object_object_get_ex(mesh, "Role", &role) && json_object_get_int(role) == 1 &&
           json_object_object_get_ex(mesh, "Enable", &enable) && json_object_get_boolean(enable);
}

// Every agent the topology tool lists gets the mesh tool's `code`.
void tellEveryAgent(int code) {
    std::string list = platformPath(kAgentList);
    char cmd[kCommandBuffer + 512];
    snprintf(cmd, sizeof cmd,
             "vxslctl -t | grep Device | awk {'print$1'} | grep -v  '*' | awk -F ']' "
             "{'print$1'} | awk -F '['  {'print$2'} > %s",
             list.c_str());
    wos_formsys(1, cmd);
    FILE* f = fopen(list.c_str(), "r");
    if (!f)
        return;
    char line[32];
    while (fgets(line, sizeof line, f)) {
        // The line end ends the agent's name, as it ended the shell command.
        tellAgent(code, std::string(line, strcspn(line, "\r\n")));
    }
    fclose(f);
    unlink(list.c_str());
}

void runLogged(const char* cmd) {
    if (wos_formsys(0, cmd) == -1)
        WLOG(WLOG_ERR, WHTTPD_SRC, "fail to run system()");
}

// The stop sequence of a mesh reboot, then this device's reboot.
void stopAndReboot() {
    std::string pidFile = platformPath("/var/run/voiceApp.pid");
    char cmd[kCommandBuffer + 256];
    snprintf(cmd, sizeof cmd, "kill -15 `cat %s`", pidFile.c_str());
    wos_formsys(0, cmd);
    wos_sleep(2);
    runLogged("killall -15 dhcp6c");
    runLogged("killall -15 pppd");
    runLogged("killall -15 udhcpc");
    wos_sleep(1);
    runLogged("killall -9 pppd");
    wcfgFeReqSend(WCFG_REQ_REBOOT, nullptr);
}

// Mesh reboot (code 2) and mesh reset (code 10) after the answer.
void meshAction(CgHttpRequest* request, int code) {
    const char* device = cg_http_request_getparam(request, "device");
    if (!device && enabledController())
        tellEveryAgent(code);
    if (device && strcmp(device, "controller") != 0) {
        tellAgent(code, device);
        return;
    }
    if (code == kMeshReboot)
        stopAndReboot();
    else
        wcfgFeReqSend(WCFG_REQ_RESET, nullptr);
}

}  // namespace

int wHttpRebootHandle(CgHttpRequest* request, uint8_t /*chunked*/, int /*spare*/) {
    acceptAction(__func__, request);
    wcfgFeReqSend(WCFG_REQ_REBOOT, nullptr);
    return 1;
}

int wHttpMeshRebootHandle(CgHttpRequest* request, uint8_t /*chunked*/, int /*spare*/) {
    acceptAction(__func__, request);
    meshAction(request, kMeshReboot);
    return 1;
}

int wHttpMeshResetAllSettingHandle(CgHttpRequest* request, uint8_t /*chunked*/, int /*spare*/) {
    acceptAction(__func__, request);
    meshAction(request, kMeshReset);
    return 1;
}
