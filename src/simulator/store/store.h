// The configuration service's store: object instances kept in an SQLite
// database below the device root ("/data/wcfg/config.db"), shared by the
// daemon, wcfgctl and every other process of the platform.
//
// Reads are served from an in-memory image of the database (image.h) and
// take no lock: each thread keeps the image it last used and checks, with one
// load of the shared generation (generation.h), whether any process has
// committed since.  Writes are serialised, in this process by the store's
// write lock and across processes by the database's write lock; each is one
// transaction that reads, merges, checks and writes, so that it is whole or
// absent, also when the process is killed.
#pragma once

#include <json-c/json.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "device/dm_def.h"
#include "simulator/store/generation.h"
#include "simulator/store/image.h"
#include "device/journal.h"
#include "simulator/store/sqlite_db.h"
#include "device/wcfg.h"

namespace wcfg {

// The database file of the store below the device root.
std::string storeDatabaseFile();
// Packs the first `levels` instance numbers of a record into one ordered key.
uint64_t keyOf(const objIndex_t& iid, int levels);
// The TR-181 path of an instance: "Device.NAT.PortMapping.3.".
std::string instancePath(const wdm::Object& o, const objIndex_t& iid);

// How a write is made.
// A TR-181 path ("Device.NAT.PortMapping.3.", "IP.Interface.2", a final "i"
// for a new instance) to an object id and record; negative when none matches.
int32_t nameToOid(const char* path, objIndex_t* iid);

struct WriteMode {
    bool apply = false;     // run the apply hooks of every object written since the last apply
    bool notify = false;    // then send the data-model-changed notice
    bool readOnly = false;  // read-only parameters may change (wcfgctl, the services)
    bool secrets = false;   // account secrets may change (account editor, provisioning)
};

class Store {
  public:
    // The store of this process's device root, opened on first use.
    static Store& instance();
    bool isOpen() const { return open_; }

    int get(int32_t oid, objIndex_t* iid, json_object** out, bool update);
    int getNext(int32_t oid, objIndex_t* iid, json_object** out, bool update);
    // Partial write of one instance; the caller's rights are checked first.
    int set(int32_t oid, objIndex_t* iid, json_object* values, const WriteMode& mode);
    // Adds an instance (with `values`, if given, in the same transaction); the
    // new number is written at position `level`.  Tables without "create"
    // grow only by the device's own writes (mode.readOnly).
    int add(int32_t oid, objIndex_t* iid, json_object* values, const WriteMode& mode);
    // Deletes an instance; tables without "create" only by the device's own
    // writes (mode.readOnly).
    int del(int32_t oid, objIndex_t* iid, const WriteMode& mode = WriteMode{});
    // A journal entry of its own, for a change the store does not hold (a
    // computed view); followers hear of it like any other.
    int noteChange(JournalKind kind, const std::string& path);
    // Replaces the whole configuration with the defaults.
    int resetToDefaults();
    // The version of the configuration this thread reads: it changes with
    // every committed write, by any process.
    uint64_t version() { return image().version; }
    // The last change journal entry whose change this thread's reads show
    // (they may show later ones as well, never miss an earlier one).
    uint64_t journalPosition() { return image().journal; }
    // The shared write generation (generation.h), and a wait until it moves
    // (a write of any process ends) or `timeoutMs` passes: what a follower
    // of the change journal sleeps in.
    uint32_t writeGeneration() const { return gen_.load(); }
    void waitForWrite(uint32_t seen, int timeoutMs);
    // Wakes every waiter in waitForWrite (to stop a follower).
    void wakeFollowers() const { gen_.wakeWaiters(); }

  private:
    class Write;
    struct Local;

    Store();
    const Image& image();
    const Image& refresh(Local& local);
    void publish(std::shared_ptr<const Image> img);
    Db& reader();
    void followGeneration();

    int objectIndex(const wdm::Object& o) const;
    json_object* build(const Image& img, const wdm::Object& o, const objIndex_t& iid,
                       const Row& row, bool update) const;
    // `changed` (when given) tells whether the row differs from before.
    int writeValues(const wdm::Object& o, uint64_t key, json_object* values, const WriteMode& mode,
                    Row& out, bool* changed = nullptr);
    bool journal(JournalKind kind, const std::string& path);
    int createInstance(const wdm::Object& o, const objIndex_t& iid);
    int newInstanceNumber(const wdm::Object& o, const objIndex_t& iid, int& number);
    bool deleteSubtree(const wdm::Object& o, const objIndex_t& iid);
    int seedDefaults();
    void seedIfEmpty();
    void repairPasswordStore();
    bool writePasswords();
    void finish(const WriteMode& mode);
    void runApplyHooks();

    bool open_ = false;
    std::string dbFile_;
    Generation gen_;
    // Writers: this process's write lock and its connection; the objects
    // written since the last apply.
    std::mutex writeMutex_;
    Db writeDb_;
    std::vector<std::pair<int32_t, uint64_t>> pending_;
    bool passwordsWritten_ = false;  // by the write in progress
    // The published image, its sequence number, and the connection that
    // checks and reloads it (see reader()); guarded by imageMutex_ (taken
    // after writeMutex_).
    std::mutex imageMutex_;
    Db readDb_;
    std::shared_ptr<const Image> published_;
    std::atomic<uint64_t> publishSeq_{0};
    // The odd generation of this process's write in progress, while the
    // published image is still the current one: readers keep using it.
    std::atomic<uint32_t> acceptOdd_{0};
    // When the generation's file is next checked for replacement (ms of the
    // coarse monotonic clock).
    std::atomic<int64_t> nextFileCheck_{0};
    // Per object: for each parameter, the child table it counts, or -1.
    std::vector<std::vector<int>> counted_;
    int devInfoIndex_ = -1, timeIndex_ = -1;
};

}  // namespace wcfg
