// The configuration store's calls, in-process, in a fresh device root: a get
// of one object, a walk over the accounts, and a one-parameter write, from 1
// and from 2 threads.  Prints the time per call.
//   store_bench [CALLS_PER_THREAD]
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "base/json_util.h"
#include "simulator/standins/provision.h"
#include "simulator/store/store.h"
#include "device/wcfg.h"
#include "simulator/standins/standin.h"

namespace {

using Clock = std::chrono::steady_clock;

void getObject() {
    objIndex_t iid;
    int32_t oid = wcfgFeObjNameToObjId("Device.DeviceInfo.", &iid);
    json_object* o = nullptr;
    if (wcfgFeObjJsonGet(oid, &iid, &o) == WCFG_SUCCESS)
        json_object_put(o);
}

void walkAccounts() {
    objIndex_t iid{};
    int32_t oid = wdm::model().idOf("RDM_OID_VX_LOG_CFG_GP_ACCOUNT");
    json_object* o = nullptr;
    while (wcfgFeObjJsonGetNextWithoutUpdate(oid, &iid, &o) == WCFG_SUCCESS)
        json_object_put(o);
}

void setOne() {
    static int n = 0;
    objIndex_t iid;
    int32_t oid = wcfgFeObjNameToObjId("Device.NAT.PortMapping.1.", &iid);
    std::string v = "{\"Description\":\"b" + std::to_string(++n) + "\"}";
    JsonPtr values(json_tokener_parse(v.c_str()));
    wcfgFeObjJsonSetWithAdditions(oid, &iid, values.get(), nullptr, WCFG_APPLY_FLAGS, nullptr);
}

void measure(const char* label, void (*call)(), int threads, int calls) {
    auto t0 = Clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&] {
            for (int i = 0; i < calls; ++i)
                call();
        });
    for (auto& t : pool)
        t.join();
    double us = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
    printf("%-14s %d thread%s: %8.2f us per call, %9.0f calls/s\n", label, threads,
           threads > 1 ? "s" : " ", us * threads / (static_cast<double>(calls) * threads),
           threads * calls / us * 1e6);
}

}  // namespace

int main(int argc, char** argv) {
    standin::install();
    int calls = argc > 1 ? atoi(argv[1]) : 200000;
    char tmpl[] = "/tmp/whttpd-store-bench-XXXXXX";
    std::string root = mkdtemp(tmpl);
    setenv("WHTTPD_ROOT", root.c_str(), 1);
    std::string err;
    if (!provision::initDeviceRoot("/bin/true", err)) {
        fprintf(stderr, "%s\n", err.c_str());
        return 1;
    }
    for (int threads : {1, 2}) {
        measure("get object", getObject, threads, calls);
        measure("walk accounts", walkAccounts, threads, calls / 3);
    }
    measure("set (applied)", setOne, 1, 200);
    std::string cmd = "rm -rf '" + root + "'";
    return system(cmd.c_str()) == 0 ? 0 : 1;
}
