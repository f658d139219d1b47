// A device held in memory for the unit tests: instances as JSON objects keyed
// by object id and instance numbers (paths resolved by the data-model
// definition), a change journal, and records of what the daemon asked of the
// account editor, the bus and the command runner.  Installed in place of the
// embedded device, it shows that the code under test reaches the device only
// through device.h, and lets a test see and stage exactly what the device
// holds.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/json_util.h"
#include "device/device.h"

namespace fake {

class MemoryDevice : public device::Config,
                     public device::Journal,
                     public device::Accounts,
                     public device::Bus,
                     public device::Commands {
  public:
    // Makes it the installed device until it is destroyed (the one before
    // comes back).
    MemoryDevice();
    ~MemoryDevice() override;

    // Staging: an instance ("Device.WiFi.SSID.1.") with these values (JSON
    // text), without a journal entry.
    void put(const std::string& path, const std::string& values);
    // What the device holds at `path` (JSON text), "" when nothing.
    std::string at(const std::string& path);
    std::vector<wcfg::JournalEntry> journalEntries();
    // The caller (a session's group) of every object read so far.
    std::vector<int> readCallers();
    std::vector<std::string> requests, commands, accountEdits;
    std::vector<std::vector<char>> sent;  // bus messages
    int mode = 0;                         // operation mode

    // device::Config
    int32_t nameToOid(const char* path, objIndex_t* iid) override;
    int get(int32_t oid, objIndex_t* iid, bool refresh, json_object** out) override;
    int getNext(int32_t oid, objIndex_t* iid, bool refresh, json_object** out) override;
    int set(int32_t oid, objIndex_t* iid, json_object* values, uint32_t flags, bool apply) override;
    int add(int32_t oid, objIndex_t* iid) override;
    int del(int32_t oid, objIndex_t* iid) override;
    uint64_t dataVersion() override;
    void setCaller(int caller) override;
    int caller() override;
    int request(uint32_t type, const char* payload) override;
    int operationMode() override { return mode; }

    // device::Journal
    std::unique_ptr<device::JournalReader> reader() override;
    uint64_t position() override;
    int note(wcfg::JournalKind kind, const char* path) override;
    uint32_t writeCount() override;
    void waitForWrite(uint32_t seen, int timeoutMs) override;
    void wakeWaiters() override;

    // device::Accounts
    int edit(json_object* request, char* reply, size_t size) override;

    // device::Bus
    int registerEndpoint(int, const char*) override { return 0; }
    int serverInit() override { return 0; }
    int receive(void** msg, int timeoutMs) override;
    void wakeReceiver() override {}
    int sendAndGetReply(const void* request, void** reply, int timeoutMs) override;
    int send(int dstEid, const void* msg, size_t length) override;

    // device::Commands
    int shell(int flags, const char* cmd) override;
    int exec(int flags, const char* const argv[], long long maxFileBytes) override;

  private:
    using Key = std::pair<int32_t, std::vector<int>>;
    std::vector<int> readCallers_;
    static Key keyOf(int32_t oid, const objIndex_t& iid);
    static std::string pathOf(const Key& k);
    void journal(wcfg::JournalKind kind, const std::string& path);
    bool readSince(uint64_t after, int limit, std::vector<wcfg::JournalEntry>& out,
                   uint64_t* oldest, uint64_t* latest);
    class Reader;

    std::mutex m_;
    std::condition_variable cv_;
    std::map<Key, JsonPtr> objects_;
    std::vector<wcfg::JournalEntry> journal_;
    uint64_t version_ = 1;
    uint32_t writes_ = 0;
    uint64_t wakes_ = 0;  // calls of wakeWaiters: each ends every wait
    device::Device before_;
};

}  // namespace fake
