// The stand-in services that work by themselves, started once in the process
// that serves the bus (the daemon): the host service's watch of the home
// network (hosts_watch.cpp) and the bandwidth monitor, which rewrites
// "/tmp/bwm_result" every 5 platform seconds with rates that move a little
// (knob "bwm.frozen" "true" keeps the file as it is).  It is stopped and
// joined when the process exits, before the statics it uses go away.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "base/platform.h"
#include "simulator/standins/knobs.h"
#include "simulator/standins/standin.h"

namespace standin {

namespace {

struct Monitor {
    std::mutex m;
    std::condition_variable cv;
    bool stop = false;
    std::thread thread;
};

// Never destroyed: the exit handler below still reaches it.
Monitor* const gMonitor = new Monitor;

void writeRates(std::minstd_rand& rng) {
    std::uniform_int_distribution<int32_t> wobble(-5, 5);  // per cent
    int32_t rates[2] = {23000 + 230 * wobble(rng), 4100 + 41 * wobble(rng)};
    std::string file = platformPath("/tmp/bwm_result"), tmp = file + ".tmp";
    if (FILE* f = fopen(tmp.c_str(), "wb")) {
        bool ok = fwrite(rates, sizeof rates, 1, f) == 1;
        if (fclose(f) == 0 && ok)
            rename(tmp.c_str(), file.c_str());
    }
}

void bandwidthMonitor() {
    platformBlockStopSignals();
    std::minstd_rand rng(12345);
    std::unique_lock<std::mutex> lock(gMonitor->m);
    while (!gMonitor->cv.wait_for(lock, std::chrono::milliseconds(5 * platformSecondMs()),
                                  [] { return gMonitor->stop; })) {
        lock.unlock();
        if (knob("bwm.frozen", "false") != "true")
            writeRates(rng);
        lock.lock();
    }
}

void stopServices() {
    {
        std::lock_guard<std::mutex> lock(gMonitor->m);
        gMonitor->stop = true;
    }
    gMonitor->cv.notify_all();
    if (gMonitor->thread.joinable())
        gMonitor->thread.join();
}

}  // namespace

void startServices() {
    static std::once_flag once;
    std::call_once(once, [] {
        // What the monitor uses is made first, so that it outlives the exit
        // handler registered after it.
        platformPath("/tmp/bwm_result");
        platformSecondMs();
        knob("bwm.frozen", "false");
        gMonitor->thread = std::thread(bandwidthMonitor);
        atexit(stopServices);
        startHostsWatch();
    });
}

}  // namespace standin
