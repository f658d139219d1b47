// The in-memory image of the store that reads are served from.
#include "simulator/store/image.h"

#include <algorithm>

#include "base/platform.h"
#include "simulator/store/sqlite_db.h"

namespace wcfg {

namespace {

bool keyLess(const Instance& a, uint64_t key) {
    return a.key < key;
}

std::shared_ptr<Image> emptyImage() {
    auto img = std::make_shared<Image>();
    static const auto kEmpty = std::make_shared<const Table>();
    img->tables.assign(wdm::model().objects.size(), kEmpty);
    return img;
}

}  // namespace

const Row* Image::find(int objectIndex, uint64_t key) const {
    const Table& t = table(objectIndex);
    auto it = std::lower_bound(t.begin(), t.end(), key, keyLess);
    return it != t.end() && it->key == key ? it->row.get() : nullptr;
}

const Instance* Image::next(int objectIndex, uint64_t key) const {
    const Table& t = table(objectIndex);
    auto it = std::upper_bound(t.begin(), t.end(), key,
                               [](uint64_t k, const Instance& i) { return k < i.key; });
    return it == t.end() ? nullptr : &*it;
}

int Image::count(int objectIndex, uint64_t lo, uint64_t hi) const {
    const Table& t = table(objectIndex);
    auto from = std::upper_bound(t.begin(), t.end(), lo,
                                 [](uint64_t k, const Instance& i) { return k < i.key; });
    auto to = std::lower_bound(from, t.end(), hi, keyLess);
    return static_cast<int>(to - from);
}

std::shared_ptr<Image> loadImage(Db& db) {
    const wdm::Model& m = wdm::model();
    std::vector<std::shared_ptr<Table>> tables(m.objects.size());
    uint64_t version = 0, oldest = 0, journal = 0;
    bool ok = db.beginRead() && db.version(version) && db.journalBounds(oldest, journal) &&
              db.forEachRow(-1, [&](int32_t oid, uint64_t key, const char* text) {
                  auto it = m.byIdIndex.find(oid);
                  if (it == m.byIdIndex.end())
                      return;  // an object this definition no longer has
                  auto row = std::make_shared<Row>();
                  if (!rowFromText(m.objects[it->second], text, *row))
                      *row = defaultRow(m.objects[it->second]);
                  auto& t = tables[it->second];
                  if (!t)
                      t = std::make_shared<Table>();
                  t->push_back({key, std::move(row)});  // rows arrive in key order
              });
    db.rollback();  // ends the read snapshot
    db.releaseMemory();
    if (!ok) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "cannot read the store: %s\n", db.error());
        return nullptr;
    }
    std::shared_ptr<Image> img = emptyImage();
    img->version = version;
    img->journal = journal;
    for (size_t i = 0; i < tables.size(); ++i)
        if (tables[i])
            img->tables[i] = std::move(tables[i]);
    return img;
}

std::shared_ptr<Image> patchImage(const Image& base, int objectIndex, uint64_t key, Row row,
                                  uint64_t version, uint64_t journal) {
    auto img = std::make_shared<Image>();
    img->version = version;
    img->journal = std::max(base.journal, journal);
    img->tables = base.tables;
    auto t = std::make_shared<Table>(base.table(objectIndex));
    auto it = std::lower_bound(t->begin(), t->end(), key, keyLess);
    auto shared = std::make_shared<const Row>(std::move(row));
    if (it != t->end() && it->key == key)
        it->row = std::move(shared);
    else
        t->insert(it, {key, std::move(shared)});
    img->tables[objectIndex] = std::move(t);
    return img;
}

}  // namespace wcfg
