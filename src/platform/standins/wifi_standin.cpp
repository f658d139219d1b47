// The platform's stand-in of the Wi-Fi service (bus endpoint 40): it answers
// WPS requests when no other process serves the endpoint.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "platform/json_util.h"
#include "platform/standins/standin.h"
#include "platform/bus/wcfg_msg.h"

namespace standin {

namespace {

enum { kWpsStart = 4006, kWpsSet = 4015, kWpsStatus = 4012 };

struct WpsSession {
    bool running = false;
    std::chrono::steady_clock::time_point started;
};

std::mutex gWpsMutex;
std::map<std::string, WpsSession> gSessions;

int walkSeconds() {
    const char* v = getenv("WHTTPD_WPS_WALK_SECONDS");
    int s = v ? atoi(v) : 120;
    return s > 0 ? s : 120;
}

// Status of the session on an interface: 1 while the walk time runs, then 4
// (no enrollee came), 0 when no session was started.
int wpsStatus(const std::string& ifName) {
    auto it = gSessions.find(ifName);
    if (it == gSessions.end() || !it->second.running) {
        // A shortened name (the status poll) matches the interface it begins.
        for (auto& [name, s] : gSessions)
            if (s.running && name.compare(0, ifName.size(), ifName) == 0)
                it = gSessions.find(name);
        if (it == gSessions.end() || !it->second.running)
            return 0;
    }
    auto elapsed = std::chrono::steady_clock::now() - it->second.started;
    return elapsed < std::chrono::seconds(walkSeconds()) ? 1 : 4;
}

void* makeReply(const wcfgMsgHdr_t& req, int kind, const char* payload) {
    size_t plen = payload ? strlen(payload) + 1 : 0;
    auto* out = static_cast<char*>(calloc(1, sizeof(wcfgMsgHdr_t) + plen + 1));
    if (!out)
        return nullptr;
    auto* hdr = reinterpret_cast<wcfgMsgHdr_t*>(out);
    *hdr = req;
    hdr->srcEid = req.dstEid;
    hdr->dstEid = req.srcEid;
    hdr->statCode = kind;
    hdr->length = static_cast<uint32_t>(plen);
    if (plen)
        memcpy(out + sizeof(wcfgMsgHdr_t), payload, plen);
    return out;
}

}  // namespace

void* wifiServiceReply(const void* request, size_t length) {
    if (!request || length < sizeof(wcfgMsgHdr_t))
        return nullptr;
    const auto& req = *static_cast<const wcfgMsgHdr_t*>(request);
    std::string ifName(req.ifName, strnlen(req.ifName, sizeof req.ifName));
    JsonPtr entry(json_object_new_object());
    json_object_object_add(entry.get(), "req", json_object_new_string("wps"));
    json_object_object_add(entry.get(), "type", json_object_new_int(static_cast<int>(req.type)));
    json_object_object_add(entry.get(), "if", json_object_new_string(ifName.c_str()));
    journal(entry.get());

    std::lock_guard<std::mutex> lock(gWpsMutex);
    char payload[64];
    switch (req.type) {
        case kWpsStart:
            gSessions[ifName] = WpsSession{true, std::chrono::steady_clock::now()};
            snprintf(payload, sizeof payload, "{\"WPSStatus\":%d}", 1);
            return makeReply(req, 0, payload);
        case kWpsSet:
            return makeReply(req, 1, nullptr);
        case kWpsStatus:
            snprintf(payload, sizeof payload, "{\"WPSStatus\":%d}", wpsStatus(ifName));
            return makeReply(req, 0, payload);
        default:
            return makeReply(req, -20, nullptr);
    }
}

}  // namespace standin
