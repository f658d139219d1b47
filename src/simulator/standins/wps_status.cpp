// The Wi-Fi service keeps the data model's WPS running status in step with
// its sessions, as a device's Wi-Fi driver reports them: "Requested" when a
// session starts, and its outcome once the walk time is over.  A thread of
// its own writes the outcomes when they fall due, so that followers of the
// configuration learn how a session ended without anybody asking.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/standins/standin.h"
#include "simulator/store/store.h"

namespace standin {

namespace {

using Clock = std::chrono::steady_clock;

struct Pending {
    Clock::time_point due;
    std::string text;
};

struct StatusWriter {
    std::mutex m;
    std::condition_variable cv;
    std::map<std::string, Pending> pending;  // by interface name
    bool stop = false;
    std::thread thread;
};

// Never destroyed: the exit handler still reaches it.
StatusWriter* const gWriter = new StatusWriter;

// The access points whose SSID is the interface `ifName`.
std::vector<objIndex_t> accessPointsOf(const std::string& ifName) {
    wcfg::Store& store = wcfg::Store::instance();
    const wdm::Model& m = wdm::model();
    std::vector<objIndex_t> out;
    objIndex_t ap{};
    json_object* obj = nullptr;
    while (store.getNext(m.idOf("RDM_OID_WIFI_ACCESS_POINT"), &ap, &obj, false) == WCFG_SUCCESS) {
        JsonPtr owned(obj);
        int ssid = 0;
        if (sscanf(jsonString(obj, "SSIDReference"), "WiFi.SSID.%d", &ssid) != 1 || ssid < 1 ||
            ssid > 255)
            continue;
        objIndex_t rec{};
        rec.level = 1;
        rec.idx[0] = static_cast<uint8_t>(ssid);
        json_object* s = nullptr;
        if (store.get(m.idOf("RDM_OID_WIFI_SSID"), &rec, &s, false) != WCFG_SUCCESS)
            continue;
        JsonPtr ownedSsid(s);
        if (ifName == jsonString(s, "Name"))
            out.push_back(ap);
    }
    return out;
}

void writeStatus(const std::string& ifName, const std::string& text) {
    WcfgCallerScope device(WCFG_CALLER_DEVICE);
    wcfg::WriteMode mode;
    mode.readOnly = true;  // a read-only parameter, written by the service itself
    JsonPtr values(json_object_new_object());
    json_object_object_add(values.get(), "X_OLVEX_WPSRunningStatus",
                           json_object_new_string(text.c_str()));
    for (objIndex_t ap : accessPointsOf(ifName))
        wcfg::Store::instance().set(wdm::model().idOf("RDM_OID_WIFI_ACCESS_POINT_WPS"), &ap,
                                    values.get(), mode);
}

void writerLoop() {
    platformBlockStopSignals();
    std::unique_lock<std::mutex> lock(gWriter->m);
    while (!gWriter->stop) {
        auto next = gWriter->pending.begin();
        for (auto it = gWriter->pending.begin(); it != gWriter->pending.end(); ++it)
            if (it->second.due < next->second.due)
                next = it;
        if (next == gWriter->pending.end()) {
            gWriter->cv.wait(lock);
            continue;
        }
        if (Clock::now() < next->second.due) {
            gWriter->cv.wait_until(lock, next->second.due);
            continue;
        }
        std::string ifName = next->first, text = next->second.text;
        gWriter->pending.erase(next);
        lock.unlock();
        writeStatus(ifName, text);
        lock.lock();
    }
}

void stopWriter() {
    {
        std::lock_guard<std::mutex> lock(gWriter->m);
        gWriter->stop = true;
    }
    gWriter->cv.notify_all();
    if (gWriter->thread.joinable())
        gWriter->thread.join();
}

// The running-status text of a session's outcome, as the device shows it.
const char* outcomeText(const std::string& outcome) {
    if (outcome == "success")
        return "NoError, WPS ok!";
    if (outcome == "error")
        return "Device Busy";
    return "WPS TIMEOUT!";
}

}  // namespace

void wpsSessionStarted(const std::string& ifName, const std::string& outcome, long walkMs) {
    static std::once_flag once;
    std::call_once(once, [] {
        gWriter->thread = std::thread(writerLoop);
        atexit(stopWriter);
    });
    writeStatus(ifName, "Requested");
    {
        std::lock_guard<std::mutex> lock(gWriter->m);
        gWriter->pending[ifName] =
            Pending{Clock::now() + std::chrono::milliseconds(walkMs), outcomeText(outcome)};
    }
    gWriter->cv.notify_all();
}

}  // namespace standin
