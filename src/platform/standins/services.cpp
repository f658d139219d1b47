// The stand-in services that work by themselves, started once in the process
// that serves the bus (the daemon): the bandwidth monitor, which rewrites
// "/tmp/bwm_result" every 5 platform seconds with rates that move a little
// (knob "bwm.frozen" "true" keeps the file as it is).
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "platform/platform.h"
#include "platform/standins/knobs.h"
#include "platform/standins/standin.h"

namespace standin {

namespace {

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
    for (;;) {
        wos_sleep(5);
        if (knob("bwm.frozen", "false") != "true")
            writeRates(rng);
    }
}

}  // namespace

void startServices() {
    static std::once_flag once;
    std::call_once(once, [] { std::thread(bandwidthMonitor).detach(); });
}

}  // namespace standin
