// The embedded device (embedded_device.h): each interface of device.h carried
// out by the store, its journal, the DAL and the bus of this process.
#include "simulator/device/embedded_device.h"

#include <unistd.h>

#include <memory>
#include <string>

#include "base/platform.h"
#include "simulator/bus/wcfg_msg.h"
#include "simulator/store/dal.h"
#include "simulator/store/hooks.h"
#include "simulator/store/journal_reader.h"
#include "simulator/store/store.h"
#include "simulator/store/write_rules.h"

namespace embedded {
namespace {

wcfg::Store& store() {
    return wcfg::Store::instance();
}

class Config : public device::Config {
  public:
    int32_t nameToOid(const char* path, objIndex_t* iid) override {
        return wcfg::nameToOid(path, iid);
    }
    int get(int32_t oid, objIndex_t* iid, bool refresh, json_object** out) override {
        return store().get(oid, iid, out, refresh);
    }
    int getNext(int32_t oid, objIndex_t* iid, bool refresh, json_object** out) override {
        return store().getNext(oid, iid, out, refresh);
    }
    int set(int32_t oid, objIndex_t* iid, json_object* values, uint32_t flags,
            bool apply) override {
        wcfg::WriteMode mode;
        mode.apply = apply && (flags & WCFG_FLAG_APPLY);
        mode.notify = apply && (flags & WCFG_FLAG_NOTIFY);
        return store().set(oid, iid, values, mode);
    }
    int add(int32_t oid, objIndex_t* iid) override {
        wcfg::WriteMode mode;
        mode.apply = mode.notify = true;
        return store().add(oid, iid, nullptr, mode);
    }
    int del(int32_t oid, objIndex_t* iid) override { return store().del(oid, iid); }
    uint64_t dataVersion() override { return store().version(); }
    void setCaller(int caller) override { wcfg::setCaller(caller); }
    int caller() override { return wcfg::caller(); }
    int request(uint32_t type, const char* payload) override {
        return wcfg::sendRequest(type, payload);
    }
    int operationMode() override { return wcfg::dalOperationMode(); }
};

class Journal : public device::Journal {
  public:
    std::unique_ptr<device::JournalReader> reader() override {
        return std::make_unique<wcfg::JournalReader>();
    }
    uint64_t position() override { return store().journalPosition(); }
    int note(wcfg::JournalKind kind, const char* path) override {
        return store().noteChange(kind, path);
    }
    uint32_t writeCount() override { return store().writeGeneration(); }
    void waitForWrite(uint32_t seen, int timeoutMs) override {
        store().waitForWrite(seen, timeoutMs);
    }
    void wakeWaiters() override { store().wakeFollowers(); }
};

class Accounts : public device::Accounts {
  public:
    int edit(json_object* request, char* reply, size_t size) override {
        return wcfg::dalAccountEdit(request, reply, size);
    }
};

class Bus : public device::Bus {
  public:
    int registerEndpoint(int eid, const char* identity) override {
        return wbus::eidInit(eid, identity);
    }
    int serverInit() override { return wbus::serverInit(); }
    int receive(void** msg, int timeoutMs) override { return wbus::serverRecv(msg, timeoutMs); }
    void wakeReceiver() override { wbus::serverWakeup(); }
    int sendAndGetReply(const void* request, void** reply, int timeoutMs) override {
        return wbus::sendAndGetReply(request, reply, timeoutMs);
    }
    int send(int dstEid, const void* msg, size_t length) override {
        return wbus::send(dstEid, msg, length);
    }
};

// The shell's own "kill" would signal real processes.  Where the device root
// holds a stand-in "kill" tool (the virtual router), command lines use it.
class Commands : public device::Commands {
  public:
    int shell(int flags, const char* cmd) override {
        if (!cmd)
            return -1;
        std::string tool = platformToolDir() + "/kill";
        if (access(tool.c_str(), X_OK) != 0)
            return platformShell(flags, cmd);
        if (flags & 1)
            wlog_log_f(WLOG_DEBUG, "wos", __LINE__, "wos_formsys", "run: %s\n", cmd);
        std::string text = "kill() { '" + tool + "' \"$@\"; }; " + cmd;
        return platformShell(flags & ~1, text.c_str());
    }
    int exec(int flags, const char* const argv[], long long maxFileBytes) override {
        return platformExec(flags, argv, maxFileBytes);
    }
};

}  // namespace

device::Device device() {
    static Config config;
    static Journal journal;
    static Accounts accounts;
    static Bus bus;
    static Commands commands;
    return device::Device{&config, &journal, &accounts, &bus, &commands};
}

void install() {
    device::install(device());
    wcfg::StoreHooks hooks;
    hooks.changed = wcfg::notifyDataModelChanged;
    wcfg::storeSetHooks(hooks);
}

}  // namespace embedded
