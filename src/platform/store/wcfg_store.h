// The configuration service's store: object instances kept in an SQLite
// database below the device root ("/data/wcfg/config.db"), written
// transactionally, shared by the daemon and wcfgctl.
#pragma once

#include <json-c/json.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "platform/store/dm_def.h"
#include "platform/store/wcfg.h"

struct sqlite3;

namespace wcfg {

// Packs the first `levels` instance numbers of a record into one ordered key.
uint64_t keyOf(const objIndex_t& iid, int levels);
// The TR-181 path of an instance: "Device.NAT.PortMapping.3.".
std::string instancePath(const wdm::Object& o, const objIndex_t& iid);

class Store {
  public:
    // The store of this process's device root, opened on first use.
    static Store& instance();

    int get(int32_t oid, objIndex_t* iid, json_object** out, bool update);
    int getNext(int32_t oid, objIndex_t* iid, json_object** out, bool update);
    // Partial write.  `apply` runs the apply hooks of every pending object;
    // `notify` then sends the data-model-changed notice.  `admin` lets
    // read-only parameters be changed (wcfgctl, the service itself).
    int set(int32_t oid, objIndex_t* iid, json_object* values, bool apply, bool notify,
            bool admin = false);
    int add(int32_t oid, objIndex_t* iid);
    int del(int32_t oid, objIndex_t* iid);

    // Replaces the whole configuration with the defaults.
    int resetToDefaults();
    // Number of instances of a table below a parent record.
    int countInstances(const wdm::Object& o, const objIndex_t& parent);
    // Rewrites the device's password store from the accounts.
    void writePasswordStore();

    std::recursive_mutex& mutex() { return mutex_; }
    bool isOpen() const { return db_ != nullptr; }

  private:
    Store();
    bool exec(const char* sql);
    bool readRow(int32_t oid, uint64_t key, std::string& vals);
    bool writeRow(int32_t oid, uint64_t key, const std::string& vals);
    bool exists(int32_t oid, uint64_t key);
    json_object* build(const wdm::Object& o, const objIndex_t& iid, const std::string& vals,
                       bool update);
    int createInstance(const wdm::Object& o, const objIndex_t& iid, json_object* values);
    void deleteSubtree(const wdm::Object& o, const objIndex_t& iid);
    int seedDefaults();
    void runApplyHooks();
    bool begin();
    bool commit();
    void rollback();

    std::recursive_mutex mutex_;
    sqlite3* db_ = nullptr;
    int txDepth_ = 0;
    // Objects written without apply since the last apply: (id, key).
    std::vector<std::pair<int32_t, uint64_t>> pending_;
};

// Sends the data-model-changed notice to every registered bus endpoint.
void notifyDataModelChanged();

}  // namespace wcfg
