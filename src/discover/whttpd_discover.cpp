// App discovery: a phone app on the LAN sends one UDP datagram; the mesh
// controller (with the mesh app enabled) answers with a JSON document that
// describes the REST API.  The document is built once before the responder
// thread starts and only read afterwards.
#include "discover/whttpd_discover.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <syslog.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "base/platform.h"
#include "datamodel/oid_names.h"
#include "base/json_util.h"
#include "device/wcfg.h"
#include "base/utf8.h"

namespace {

const char* const kTemplate =
    "{\"ApiName\":\"OLVEX RESTful API\",\"ModelName\":\"Unknown\",\"SoftwareVersion\":"
    "\"Unknown\",\"DeviceMode\":\"Router\",\"SupportedApiVersion\":[{\"ApiVersion\":\"1.1\","
    "\"LoginURI\":\"/api/v1/UserLogin\",\"Protocol\":\"HTTPS\",\"HttpsPort\":8443}]}";
const char* const kMagic = "Q8152";
const size_t kBuffer = 4096;
const char* const kSelf = "app_discover_main";

// The document's text: written before the thread starts, never destroyed
// (the thread may still read it while the process exits).
const std::string* gDocument = nullptr;
// Stopping at exit: the flag, the bound port to wake the thread through, and
// the thread's last word.
std::atomic<bool> gStopping{false};
std::atomic<bool> gStopped{false};

bool boolOf(json_object* obj, const char* key, bool fallback) {
    json_object* v = nullptr;
    return obj && json_object_object_get_ex(obj, key, &v) ? json_object_get_boolean(v) : fallback;
}

void buildDocument(int httpsPort) {
    char mac[32] = "";
    vxUtilIGetBaseMACwithColon(mac, sizeof mac);
    JsonPtr doc(json_tokener_parse(kTemplate));
    json_object* versions = nullptr;
    json_object_object_get_ex(doc.get(), "SupportedApiVersion", &versions);
    for (size_t i = 0; i < json_object_array_length(versions); ++i)
        json_object_object_add(json_object_array_get_idx(versions, i), "HttpsPort",
                               json_object_new_int(httpsPort));
    if (JsonPtr info = wHttpGetObjectByName("RDM_OID_DEV_INFO", true)) {
        json_object_object_add(doc.get(), "ModelName",
                               json_object_new_string(jsonString(info.get(), "ModelName")));
        json_object_object_add(doc.get(), "MAC", json_object_new_string(mac));
        json_object_object_add(doc.get(), "SoftwareVersion",
                               json_object_new_string(jsonString(info.get(), "SoftwareVersion")));
    }
    JsonPtr flags = wHttpGetObjectByName("RDM_OID_FEATURE_FLAG", false);
    if (!flags)
        WLOG(WLOG_ERR, WHTTPD_SRC, "%s: Get RDM_OID_FEATURE_FLAG fail\n",
             "whttpDiscoverThreadInit");
    json_object_object_add(doc.get(), "SupportedCloudAgent", json_object_new_boolean(0));
    json_object_object_add(
        doc.get(), "SupportOlvexUniAPPGeneric",
        json_object_new_boolean(boolOf(flags.get(), "SupportOlvexUniAPPGeneric", true)));
    gDocument = new std::string(json_object_to_json_string_ext(doc.get(), JSON_C_TO_STRING_PLAIN));
    wos_pk("DeviceDiscRespPayload=%s\n", gDocument->c_str());
}

int discoveryPort() {
    const char* v = getenv("WHTTPD_DISCOVERY_PORT");
    int port = v ? atoi(v) : 0;
    return port > 0 && port < 65536 ? port : 263;
}

// The socket, or the end of the process: the device cannot be found without it.
int openSocket() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        perror("socket");
        exit(1);
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0)
        perror("set sock reuse addr error");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(discoveryPort()));
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        perror("bind");
        wlog_syslog(LOG_ERR, "discovery: cannot bind UDP port %d\n", discoveryPort());
        exit(1);
    }
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "APP Agent UDP socket ready!\n");
    return fd;
}

// Whether this device answers now: the mesh app on and the mesh controller.
// With the app off or unreadable the previous decision stands.
bool decide(bool previous) {
    JsonPtr app = wHttpGetObjectByName("RDM_OID_K_ARO_MESH_APP", true);
    bool enabled = boolOf(app.get(), "Enable", false);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s : App is :%s\n", kSelf, enabled ? "enable" : "disable");
    if (!enabled)
        return previous;
    JsonPtr mesh = wHttpGetObjectByName("RDM_OID_EASY_MESH", true);
    if (!mesh) {
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s : Get device role fail, reply_res is :%d\n", kSelf, 0);
        return false;
    }
    json_object* role = nullptr;
    bool controller =
        json_object_object_get_ex(mesh.get(), "Role", &role) && json_object_get_int(role) == 1;
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s : Device role is :%s, reply_res is :%d\n", kSelf,
         controller ? "controller" : "agent", controller ? 1 : 0);
    return controller;
}

void* discoverMain(void*) {
    platformBlockStopSignals();
    int fd = openSocket();
    bool reply = false;
    unsigned char buf[kBuffer + 1];
    unsigned char answer[kDiscoverAnswerMax];
    for (;;) {
        memset(buf, 0, sizeof buf);
        sockaddr_in from{};
        socklen_t fromLen = sizeof from;
        ssize_t n = recvfrom(fd, buf, kBuffer, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
        if (gStopping.load())
            break;
        if (n < 0) {
            perror("recvfrom error");
            continue;
        }
        // An empty datagram is no request (a datagram socket has no end of
        // data): dropped like any other malformed one.
        char ip[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &from.sin_addr, ip, sizeof ip);
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s : UDP Packet from IP: %s, Port: %d\n", kSelf, ip,
             ntohs(from.sin_port));
        if (n == 0 || !whttpDiscoverIsRequest(buf, n))
            continue;
        size_t length = whttpDiscoverBuildAnswer(*gDocument, answer);
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s : Resp Payload: %.*s\n", kSelf, static_cast<int>(length),
             reinterpret_cast<const char*>(answer + 4));
        std::this_thread::sleep_for(std::chrono::milliseconds(500 * platformSecondMs() / 1000));
        reply = decide(reply);
        ssize_t ret = 0;
        if (reply) {
            ret = sendto(fd, answer, length + 4, 0, reinterpret_cast<sockaddr*>(&from), fromLen);
            if (ret < 0)
                perror("sendto");
            else
                reply = false;
        }
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s : len %d\n", kSelf, static_cast<int>(length + 4));
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s : ret %d\n", kSelf, static_cast<int>(ret));
    }
    close(fd);
    gStopped = true;
    return nullptr;
}

// At exit: wake the thread with an empty datagram and let it finish before
// the statics it reads go away.
void stopDiscovery() {
    gStopping = true;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0)
        return;
    sockaddr_in self{};
    self.sin_family = AF_INET;
    self.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    self.sin_port = htons(static_cast<uint16_t>(discoveryPort()));
    for (int i = 0; i < 100 && !gStopped.load(); ++i) {
        sendto(fd, "", 0, 0, reinterpret_cast<sockaddr*>(&self), sizeof self);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    close(fd);
}

}  // namespace

bool whttpDiscoverIsRequest(const unsigned char* buf, ssize_t n) {
    uint16_t wire = 0;
    memcpy(&wire, buf + 2, 2);
    uint16_t length = ntohs(wire);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s : version = %d, type = %d, length = %d\n", kSelf, buf[0],
         buf[1], wire);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s : req_header.length=%d\n", kSelf, length);
    if (n < 4 || buf[0] != 1 || buf[1] != 1 || length < 1 || length > kBuffer)
        return false;
    const char* payload = reinterpret_cast<const char*>(buf + 4);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s : Rx Payload: %s\n", kSelf, payload);
    JsonPtr req(jsonParseUtf8(payload));
    if (!req) {
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s parse request payload fail.\n", kSelf);
        return false;
    }
    json_object* magic = nullptr;
    json_object* version = nullptr;
    json_object_object_get_ex(req.get(), "AppVersion", &version);  // read, not used
    // A "MagicNum" of null has no text at all.
    const char* text = json_object_object_get_ex(req.get(), "MagicNum", &magic)
                           ? json_object_get_string(magic)
                           : nullptr;
    if (!text || strcmp(text, kMagic) != 0) {
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s Wrong MagicNum.\n", kSelf);
        return false;
    }
    return true;
}

size_t whttpDiscoverBuildAnswer(std::string_view document, unsigned char* out) {
    size_t length = utf8CutLength(document, kDiscoverAnswerMax - 4);
    out[0] = 1;
    out[1] = 2;
    uint16_t wire = htons(static_cast<uint16_t>(length));
    memcpy(out + 2, &wire, 2);
    memcpy(out + 4, document.data(), length);
    return length;
}

int whttpDiscoverThreadInit(int httpsPort) {
    buildDocument(httpsPort);
    atexit(stopDiscovery);
    pthread_t thread;
    int ret = pthread_create(&thread, nullptr, discoverMain, nullptr);
    if (ret != 0) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "%s : app_discover_main() thread creation failed!!\n", __func__);
        return ret;
    }
    return pthread_detach(thread);
}
