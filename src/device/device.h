// What the daemon needs from the device it runs on, as interfaces: the
// configuration service (get, walk, set, add, delete, requests by type), its
// change journal and the wait for the next write, the account editor, the
// message bus and the command runner.  A program installs one device at
// start-up (installDevice(), defined by the device library it links); the
// calls of wcfg.h, bus.h and commands.h reach the installed device, and
// nothing of the daemon reaches a device any other way.
#pragma once

#include <json-c/json.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "device/journal.h"
#include "device/wcfg.h"

namespace device {

// The configuration service: objects by id and instance-id record.  Return
// codes and flags are those of wcfg.h; JSON objects returned belong to the
// caller.  Every call is thread-safe.
class Config {
  public:
    virtual ~Config() = default;
    // A TR-181 path to an object id and record; negative when none matches.
    virtual int32_t nameToOid(const char* path, objIndex_t* iid) = 0;
    // One instance; with `refresh` the object's refresh runs first.
    virtual int get(int32_t oid, objIndex_t* iid, bool refresh, json_object** out) = 0;
    // The instance after the record; WCFG_NO_MORE_INSTANCE at the end.
    virtual int getNext(int32_t oid, objIndex_t* iid, bool refresh, json_object** out) = 0;
    // A partial write; `apply` false marks the object pending instead.
    virtual int set(int32_t oid, objIndex_t* iid, json_object* values, uint32_t flags,
                    bool apply) = 0;
    virtual int add(int32_t oid, objIndex_t* iid) = 0;
    virtual int del(int32_t oid, objIndex_t* iid) = 0;
    // Changes whenever a write commits, in any process.
    virtual uint64_t dataVersion() = 0;
    // Whom the calls of the current thread act for (wcfg.h).
    virtual void setCaller(int caller) = 0;
    virtual int caller() = 0;
    // A request by type (reboot, reset, image check, upgrade).
    virtual int request(uint32_t type, const char* payload) = 0;
    // 0 router, 1 access point, 2 extender.
    virtual int operationMode() = 0;
};

// Reads the change journal; one reader serves one thread.
class JournalReader {
  public:
    virtual ~JournalReader() = default;
    // Up to `limit` entries after `after`, oldest first; false when the
    // journal cannot be read.  With `oldest` and `latest`, its bounds as of
    // the same read.
    virtual bool since(uint64_t after, int limit, std::vector<wcfg::JournalEntry>& out,
                       uint64_t* oldest = nullptr, uint64_t* latest = nullptr) = 0;
    // The oldest entry kept (latest + 1 when none is) and the latest number.
    virtual bool bounds(uint64_t& oldest, uint64_t& latest) = 0;
};

// The change journal: one numbered entry per instance a write changed.
class Journal {
  public:
    virtual ~Journal() = default;
    virtual std::unique_ptr<JournalReader> reader() = 0;
    // The position of what this thread reads (wcfgFeJournalPosition).
    virtual uint64_t position() = 0;
    // Records a change the service cannot see itself (a computed view).
    virtual int note(wcfg::JournalKind kind, const char* path) = 0;
    // A number that changes with every write of any process, and the wait
    // until it is no longer `seen` (or `timeoutMs` passed, or a wake).
    virtual uint32_t writeCount() = 0;
    virtual void waitForWrite(uint32_t seen, int timeoutMs) = 0;
    // Ends every wait of waitForWrite early.
    virtual void wakeWaiters() = 0;
};

// The account editor (wcfgFeDal_User_Account_Edit).
class Accounts {
  public:
    virtual ~Accounts() = default;
    virtual int edit(json_object* request, char* reply, size_t size) = 0;
};

// The message bus (bus.h).
class Bus {
  public:
    virtual ~Bus() = default;
    virtual int registerEndpoint(int eid, const char* identity) = 0;
    virtual int serverInit() = 0;
    virtual int receive(void** msg, int timeoutMs) = 0;
    // Async-signal-safe.
    virtual void wakeReceiver() = 0;
    virtual int sendAndGetReply(const void* request, void** reply, int timeoutMs) = 0;
    virtual int send(int dstEid, const void* msg, size_t length) = 0;
};

// Runs the device's programs (commands.h).
class Commands {
  public:
    virtual ~Commands() = default;
    // A shell command line; the exit status or -1.
    virtual int shell(int flags, const char* cmd) = 0;
    // A program and its arguments without a shell; `maxFileBytes` > 0 bounds
    // every file it writes.
    virtual int exec(int flags, const char* const argv[], long long maxFileBytes) = 0;
};

// The device: each part lives as long as the program.
struct Device {
    Config* config = nullptr;
    Journal* journal = nullptr;
    Accounts* accounts = nullptr;
    Bus* bus = nullptr;
    Commands* commands = nullptr;  // nullptr: the POSIX runner (commands.h)
};

// Makes `d` the device of this process; called once, before any thread
// that reaches it starts.
void install(const Device& d);
// The installed device; a program that installed none ends with a message.
const Device& current();

// The POSIX command runner: /bin/sh for command lines, execvp for programs.
Commands& posixCommands();

}  // namespace device

// Installs the device the program runs on: defined by the device library the
// program links (the embedded device, the virtual router with its stand-ins,
// or a firmware build's own).  Every program calls it first.
void installDevice();
