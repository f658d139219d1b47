// Readers of the configuration store beside its writers.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "base/json_util.h"
#include "device/wcfg.h"
#include "simulator/store/store.h"
#include "unit/simulator/store/store_helpers.h"
#include "unit/test_root.h"

namespace {

class StoreRules : public StoreFixture {};

}  // namespace

// Readers never see half a write: every write sets both ports to the same
// number, and every instance read has them equal.
TEST_F(StoreRules, ConcurrentReadsBesideWritesSeeWholeObjects) {
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0}, reads{0};
    objIndex_t table;
    int32_t oid = wcfgFeObjNameToObjId("Device.NAT.PortMapping.i", &table);
    ASSERT_EQ(
        0, storeSet("Device.NAT.PortMapping.1.", R"({"ExternalPort": 999, "InternalPort": 999})"));
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t)
        readers.emplace_back([&] {
            while (!stop) {
                objIndex_t iid{};
                json_object* o = nullptr;
                while (wcfgFeObjJsonGetNextWithoutUpdate(oid, &iid, &o) == WCFG_SUCCESS) {
                    JsonPtr owned(o);
                    json_object *a = nullptr, *b = nullptr;
                    json_object_object_get_ex(o, "ExternalPort", &a);
                    json_object_object_get_ex(o, "InternalPort", &b);
                    if (json_object_get_int(a) != json_object_get_int(b))
                        ++torn;
                    ++reads;
                }
            }
        });
    for (int i = 0; i < 60; ++i) {
        std::string v = std::to_string(1000 + i);
        ASSERT_EQ(0, storeSet("Device.NAT.PortMapping.1.",
                              ("{\"ExternalPort\":" + v + ",\"InternalPort\":" + v + "}").c_str()));
        objIndex_t added;
        ASSERT_EQ(0, storeAdd("Device.NAT.PortMapping.", &added));
        std::string path = "Device.NAT.PortMapping." + std::to_string(added.idx[0]) + ".";
        ASSERT_EQ(0, storeSet(path.c_str(),
                              ("{\"ExternalPort\":" + v + ",\"InternalPort\":" + v + "}").c_str()));
        ASSERT_EQ(0, storeDel(path.c_str()));
    }
    stop = true;
    for (auto& t : readers)
        t.join();
    EXPECT_EQ(0, torn.load());
    EXPECT_GT(reads.load(), 0);
}
