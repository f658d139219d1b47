// The in-memory image of the store that every read is served from: for each
// object of the data model its instances, sorted by key, as rows of typed
// values.  An image never changes once published (only its `label`);
// readers share it without a lock, and a write publishes a new one that
// shares every unchanged table with the old.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "device/dm_def.h"
#include "simulator/store/values.h"

namespace wcfg {

class Db;

struct Instance {
    uint64_t key;
    std::shared_ptr<const Row> row;
};
using Table = std::vector<Instance>;  // sorted by key

struct Image {
    uint64_t version = 0;  // the database version the image shows
    // The last change journal entry whose change the image shows (it may show
    // later ones too, never miss an earlier one).
    uint64_t journal = 0;
    // The even generation at which the image was known to be current; odd
    // (1) until then.
    mutable std::atomic<uint32_t> label{1};
    std::vector<std::shared_ptr<const Table>> tables;  // by index in wdm::model().objects

    const Table& table(int objectIndex) const { return *tables[objectIndex]; }
    // The row of an instance, or nullptr.
    const Row* find(int objectIndex, uint64_t key) const;
    // The first instance with a key above `key`, or nullptr.
    const Instance* next(int objectIndex, uint64_t key) const;
    // Instances with lo < key < hi.
    int count(int objectIndex, uint64_t lo, uint64_t hi) const;
};

// Reads the whole database into a new image, in one read transaction.
std::shared_ptr<Image> loadImage(Db& db);
// A copy of `base` (sharing its tables) with one instance's row replaced or
// added, at `version`.
std::shared_ptr<Image> patchImage(const Image& base, int objectIndex, uint64_t key, Row row,
                                  uint64_t version, uint64_t journal);

}  // namespace wcfg
