// The platform's stand-in of the Wi-Fi service (bus endpoint 40): it answers
// WPS requests when no other process serves the endpoint, with one WPS
// session per interface.  Knobs (knobs.h):
//   wifi.wps.walk_seconds   walk time of a session, platform seconds (120)
//   wifi.wps.outcome        "timeout" (no enrollee came), "success", "error"
//   wifi.wps.forced_status  any integer: every status answer is that value
//   wifi.wps.reply          "normal", "none" (no reply: the caller times out),
//                           "kind1" (success without payload), "error" (-5)
//   wifi.wps.delay_ms       a delay before every reply
//   wifi.wps.hold           "1": every reply waits until it is something else
//                           (a test holds a request the daemon waits for)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "simulator/bus/wcfg_msg.h"
#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/standins/knobs.h"
#include "simulator/standins/standin.h"
#include "device/wcfg.h"

namespace standin {

namespace {

using Clock = std::chrono::steady_clock;

enum { kWpsStart = 4006, kWpsSet = 4015, kWpsStatus = 4012 };

struct WpsSession {
    Clock::time_point started;
    std::string outcome;
};

std::mutex gWpsMutex;
std::map<std::string, WpsSession> gSessions;  // by interface name

// The session of an interface; a shortened name (the daemon's status polls
// use 7 characters) finds the interface it begins.
const WpsSession* sessionOf(const std::string& ifName) {
    auto it = gSessions.find(ifName);
    if (it != gSessions.end())
        return &it->second;
    for (auto& [name, s] : gSessions)
        if (!ifName.empty() && name.compare(0, ifName.size(), ifName) == 0)
            return &s;
    return nullptr;
}

// 0 idle; 1 walk time running; on success 5 and 6 for its last two seconds,
// then 2 (in a mode other than router 4, and the marker "/tmp/wps_success",
// as the extender's WPS client reports it); 3 after an error; 4 when nobody
// came.
int wpsStatus(const std::string& ifName) {
    const WpsSession* s = sessionOf(ifName);
    if (!s)
        return 0;
    // Milliseconds in 64 bits: a walk of weeks overflows a 32-bit long.
    int64_t second = platformSecondMs();
    int64_t walk = static_cast<int64_t>(knobNumber("wifi.wps.walk_seconds", 120)) * second;
    int64_t elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - s->started).count();
    bool success = s->outcome == "success";
    if (elapsed < walk) {
        if (success && elapsed >= walk - second)
            return 6;
        if (success && elapsed >= walk - 2 * second)
            return 5;
        return 1;
    }
    if (s->outcome == "error")
        return 3;
    if (!success)
        return 4;
    if (wcfgFeDalGetOpertaionMode() == 0)
        return 2;
    if (FILE* f = fopen(platformPath("/tmp/wps_success").c_str(), "w"))
        fclose(f);
    return 4;
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

void* statusReply(const wcfgMsgHdr_t& req, int status) {
    std::string forced = knob("wifi.wps.forced_status", "");
    if (!forced.empty())
        status = atoi(forced.c_str());
    char payload[64];
    snprintf(payload, sizeof payload, "{\"WPSStatus\":%d}", status);
    return makeReply(req, 0, payload);
}

void journalRequest(const wcfgMsgHdr_t& req, const std::string& ifName) {
    JsonPtr entry(json_object_new_object());
    json_object_object_add(entry.get(), "req", json_object_new_string("wps"));
    json_object_object_add(entry.get(), "type", json_object_new_int(static_cast<int>(req.type)));
    json_object_object_add(entry.get(), "if", json_object_new_string(ifName.c_str()));
    journal(entry.get());
}

}  // namespace

void* wifiServiceReply(const void* request, size_t length) {
    if (!request || length < sizeof(wcfgMsgHdr_t))
        return nullptr;
    const auto& req = *static_cast<const wcfgMsgHdr_t*>(request);
    std::string ifName(req.ifName, strnlen(req.ifName, sizeof req.ifName));
    journalRequest(req, ifName);
    if (long delay = knobNumber("wifi.wps.delay_ms", 0); delay > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    while (knob("wifi.wps.hold", "") == "1")
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::string mode = knob("wifi.wps.reply", "normal");
    if (mode == "none")
        return nullptr;
    if (mode == "kind1")
        return makeReply(req, 1, nullptr);
    if (mode == "error")
        return makeReply(req, -5, nullptr);
    std::lock_guard<std::mutex> lock(gWpsMutex);
    switch (req.type) {
        case kWpsStart: {
            WpsSession session{Clock::now(), knob("wifi.wps.outcome", "timeout")};
            gSessions[ifName] = session;
            wpsSessionStarted(ifName, session.outcome,
                              knobNumber("wifi.wps.walk_seconds", 120) * platformSecondMs());
            return statusReply(req, 1);
        }
        case kWpsSet:
            return makeReply(req, 1, nullptr);
        case kWpsStatus:
            return statusReply(req, wpsStatus(ifName));
        default:
            return makeReply(req, -20, nullptr);
    }
}

}  // namespace standin
