// The store: lock-free reads from the image, whole-or-absent writes.
#include "simulator/store/store.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/store/accounts.h"
#include "simulator/store/hooks.h"
#include "simulator/store/write_rules.h"

extern const char kDefaultConfiguration[];

namespace wcfg {

namespace {

// Span of keys taken by the descendants of an instance of depth `depth`.
uint64_t subtreeSpan(int depth) {
    return depth >= 6 ? 1 : (uint64_t{1} << (8 * (6 - depth)));
}

// The nearest table above an object (the object that holds its parent's
// instances).
const wdm::Object* parentTable(const wdm::Object& o) {
    const wdm::Model& m = wdm::model();
    const wdm::Object* p = &m.objects[o.parent];
    while (!p->table && p->parent >= 0)
        p = &m.objects[p->parent];
    return p;
}

// A clock that costs no system call, good to 10 ms or so.
int64_t coarseMilliseconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

objIndex_t recordOf(uint64_t key, int depth) {
    objIndex_t iid{};
    iid.level = static_cast<uint8_t>(depth);
    for (int i = 0; i < depth; ++i)
        iid.idx[i] = static_cast<uint8_t>(key >> (8 * (5 - i)));
    return iid;
}

}  // namespace

uint64_t keyOf(const objIndex_t& iid, int levels) {
    uint64_t k = 0;
    for (int i = 0; i < 6; ++i)
        k = (k << 8) | (i < levels && i < iid.level ? iid.idx[i] : 0);
    return k;
}

std::string storeDatabaseFile() {
    return platformPath("/data/wcfg/config.db");
}

std::string instancePath(const wdm::Object& o, const objIndex_t& iid) {
    std::string out;
    int n = 0;
    size_t pos = 0;
    while (pos < o.path.size()) {
        size_t dot = o.path.find('.', pos);
        std::string seg = o.path.substr(pos, dot - pos);
        if (seg == "{i}")
            out += std::to_string(n < iid.level ? iid.idx[n] : 0), ++n;
        else
            out += seg;
        out += ".";
        pos = dot + 1;
    }
    return out;
}

// ---------------------------------------------------------------------------
// One write of this process: the store's write lock, the database's write
// lock (an immediate transaction) and the shared generation marked odd.
// Destroyed without commit() it rolls everything back.

class Store::Write {
  public:
    explicit Write(Store& s) : s_(s), lock_(s.writeMutex_) {
        if (!s_.open_ || !s_.writeDb_.beginWrite())
            return;
        begun_ = true;
        {
            std::lock_guard<std::mutex> il(s_.imageMutex_);
            s_.followGeneration();
            // Without the shared counter no other process would learn of
            // this write.
            if (!s_.gen_.isShared())
                return;
            uint32_t prev = s_.gen_.load();
            odd_ = s_.gen_.beginWrite();
            if (!(prev & 1) && s_.published_->label.load() == prev)
                s_.acceptOdd_.store(odd_);
        }
        ok_ = s_.writeDb_.version(before_);
        s_.writeDb_.takeLastJournal();
    }
    ~Write() {
        if (begun_ && !committed_) {
            s_.writeDb_.rollback();
            if (odd_)
                s_.gen_.endWrite(odd_);
            // The password store was replaced for a write that did not
            // commit: make it the database's again, under its write lock.
            if (s_.passwordsWritten_ && s_.writeDb_.beginWrite()) {
                writePasswordStore(s_.writeDb_);
                s_.writeDb_.rollback();
            }
        }
        s_.passwordsWritten_ = false;
        s_.acceptOdd_.store(0);
    }
    Write(const Write&) = delete;
    Write& operator=(const Write&) = delete;

    bool ok() const { return ok_; }
    Db& db() { return s_.writeDb_; }

    // Commits and brings the image up to date: patched with the one row
    // given when it showed the database as this write found it, else read
    // again.  `changed` false: nothing was written (the version stays).
    bool commit(bool changed, int objectIndex = -1, uint64_t key = 0, const Row* row = nullptr) {
        uint64_t after = before_;
        if (changed && !s_.writeDb_.bumpVersion(after))
            return false;
        uint64_t journal = s_.writeDb_.takeLastJournal();
        if (!s_.writeDb_.commit())
            return false;  // rolled back; the destructor repairs the password store
        committed_ = true;
        s_.writeDb_.releaseMemory();
        std::lock_guard<std::mutex> il(s_.imageMutex_);
        std::shared_ptr<const Image> next = s_.published_;
        if (next->version != after) {
            if (row && next->version == before_)
                next = patchImage(*next, objectIndex, key, *row, after, journal);
            else if (auto loaded = loadImage(s_.reader()))
                next = loaded;
        }
        // Labelled before the generation turns even, so that readers find
        // the new image current as soon as it does.
        if (next->version == after)
            next->label.store(odd_ + 1);
        if (next != s_.published_)
            s_.publish(next);
        s_.gen_.endWrite(odd_);
        return true;
    }

  private:
    Store& s_;
    std::unique_lock<std::mutex> lock_;
    bool begun_ = false, ok_ = false, committed_ = false;
    uint32_t odd_ = 0;
    uint64_t before_ = 0;
};

// ---------------------------------------------------------------------------
// Opening, the image and reads.

Store& Store::instance() {
    static Store store;
    return store;
}

Store::Store() {
    const wdm::Model& m = wdm::model();
    counted_.resize(m.objects.size());
    for (size_t i = 0; i < m.objects.size(); ++i) {
        const wdm::Object& o = m.objects[i];
        const std::string suffix = "NumberOfEntries";
        for (const wdm::Param& p : o.params) {
            int child = -1;
            if (p.name.size() > suffix.size() &&
                p.name.compare(p.name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                std::string table = p.name.substr(0, p.name.size() - suffix.size());
                for (int c : o.children)
                    if (m.objects[c].table && !m.objects[c].isVirtual && m.objects[c].name == table)
                        child = c;
            }
            counted_[i].push_back(child);
        }
        if (o.rdm == "RDM_OID_DEV_INFO")
            devInfoIndex_ = static_cast<int>(i);
        else if (o.rdm == "RDM_OID_TIME")
            timeIndex_ = static_cast<int>(i);
    }
    std::string run = platformPath("/var/run/wcfg");
    if (!platformMakeDirs(platformPath("/data/wcfg")) || !platformMakeDirs(run))
        return;
    gen_.open(run + "/config.gen");
    dbFile_ = storeDatabaseFile();
    if (!writeDb_.open(dbFile_))
        return;
    uint32_t g = gen_.load();
    std::shared_ptr<Image> img = loadImage(writeDb_);
    if (!img)
        return;
    // Loaded after `g` was read: current as of `g`.
    if (!(g & 1))
        img->label.store(g);
    published_ = std::move(img);
    open_ = true;
    seedIfEmpty();
    repairPasswordStore();
}

// What a thread last read: the image and the publish sequence it came with.
struct Store::Local {
    std::shared_ptr<const Image> img;
    uint64_t seq = ~uint64_t{0};
};

const Image& Store::image() {
    static thread_local Local local;
    // Now and then: is the counter file still the one that writers bump?
    if (coarseMilliseconds() >= nextFileCheck_.load(std::memory_order_relaxed)) {
        std::lock_guard<std::mutex> lock(imageMutex_);
        followGeneration();
    }
    uint32_t g = gen_.load();
    if (local.seq == publishSeq_.load(std::memory_order_acquire) &&
        (((g & 1) == 0 && local.img->label.load(std::memory_order_acquire) == g) ||
         ((g & 1) && g == acceptOdd_.load(std::memory_order_acquire))))
        return *local.img;
    return refresh(local);
}

void Store::waitForWrite(uint32_t seen, int timeoutMs) {
    gen_.wait(seen, timeoutMs);
    // A follower that only waits still notices a replaced counter file.
    std::lock_guard<std::mutex> lock(imageMutex_);
    followGeneration();
}

// Maps the generation's file again when it was removed or replaced, and
// then trusts the image no more until the database has confirmed it.  Called
// with imageMutex_ held, at most every 100 ms.
void Store::followGeneration() {
    int64_t now = coarseMilliseconds();
    if (now < nextFileCheck_.load(std::memory_order_relaxed))
        return;
    nextFileCheck_.store(now + 100, std::memory_order_relaxed);
    if (!gen_.replaced())
        return;
    gen_.reopen();
    published_->label.store(1);
}

// The slow way: the generation moved (or is odd), so the database says
// whether the published image is still current.
const Image& Store::refresh(Local& local) {
    std::lock_guard<std::mutex> lock(imageMutex_);
    uint32_t g = gen_.load();
    bool current = (g & 1) ? g == acceptOdd_.load() : published_->label.load() == g;
    uint64_t version = 0;
    if (!current && reader().version(version)) {
        if (version != published_->version)
            if (auto loaded = loadImage(reader()))
                publish(loaded);
        // Whatever committed before `g` was loaded is in the image now.
        if (!(g & 1) && published_->version >= version)
            published_->label.store(g);
    }
    local.img = published_;
    local.seq = publishSeq_.load();
    return *local.img;
}

// The connection that checks and reloads the image, opened when first
// needed: a process that only reads what it writes itself never needs it.
Db& Store::reader() {
    if (!readDb_.isOpen())
        readDb_.open(dbFile_);
    return readDb_;
}

void Store::publish(std::shared_ptr<const Image> img) {
    published_ = std::move(img);
    publishSeq_.fetch_add(1, std::memory_order_release);
}

int Store::objectIndex(const wdm::Object& o) const {
    return static_cast<int>(&o - &wdm::model().objects[0]);
}

json_object* Store::build(const Image& img, const wdm::Object& o, const objIndex_t& iid,
                          const Row& row, bool update) const {
    int index = objectIndex(o);
    json_object* out = json_object_new_object();
    for (size_t i = 0; i < o.params.size(); ++i) {
        int child = counted_[index][i];
        if (child >= 0) {
            uint64_t lo = keyOf(iid, o.depth);
            json_object_object_add(
                out, o.params[i].name.c_str(),
                json_object_new_int(img.count(child, lo, lo + subtreeSpan(o.depth))));
        } else {
            addToJson(out, o.params[i], row[i]);
        }
    }
    if (update && index == devInfoIndex_)
        json_object_object_add(out, "UpTime", json_object_new_int64(platformUptimeSeconds()));
    else if (update && index == timeIndex_)
        json_object_object_add(out, "CurrentLocalTime",
                               json_object_new_string(platformNowIso().c_str()));
    return out;
}

int Store::get(int32_t oid, objIndex_t* iid, json_object** out, bool update) {
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o || o->isVirtual)
        return WCFG_INVALID_OBJECT;
    if (!iid || !out)
        return WCFG_INVALID_ARGUMENTS;
    if (iid->level != o->depth)
        return WCFG_NOT_INSTANCE;
    if (!open_)
        return WCFG_INTERNAL_ERROR;
    int index = objectIndex(*o);
    if (update)
        if (RefreshHook refresh = refreshHookOf(*o))
            refresh();
    const Image& img = image();
    uint64_t key = keyOf(*iid, o->depth);
    if (const Row* row = img.find(index, key)) {
        *out = build(img, *o, *iid, *row, update);
        return WCFG_SUCCESS;
    }
    if (!o->table)
        return o->depth ? WCFG_NOT_FOUND : WCFG_NO_SUCH_OBJECT;
    if (o->depth > 1 && !img.find(objectIndex(*parentTable(*o)), keyOf(*iid, o->depth - 1)))
        return WCFG_NOT_FOUND;
    // A missing row: a gap when a sibling with a higher number exists.
    uint64_t end = keyOf(*iid, o->depth - 1) + subtreeSpan(o->depth - 1);
    const Instance* next = img.next(index, key);
    return next && next->key < end ? WCFG_NO_SUCH_OBJECT : WCFG_NO_MORE_INSTANCE;
}

int Store::getNext(int32_t oid, objIndex_t* iid, json_object** out, bool update) {
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o || o->isVirtual)
        return WCFG_INVALID_OBJECT;
    if (!iid || !out)
        return WCFG_INVALID_ARGUMENTS;
    if (!open_)
        return WCFG_INTERNAL_ERROR;
    const Image& img = image();
    int index = objectIndex(*o);
    if (o->depth == 0) {
        // A single object is handed out once from a zeroed record; idx[0]
        // then marks it as passed.
        const Row* row = img.find(index, 0);
        if (iid->level != 0 || iid->idx[0] != 0 || !row)
            return WCFG_NO_MORE_INSTANCE;
        *out = build(img, *o, *iid, *row, update);
        iid->idx[0] = 1;
        return WCFG_SUCCESS;
    }
    const Instance* next = img.next(index, keyOf(*iid, std::min<int>(iid->level, 6)));
    if (!next)
        return WCFG_NO_MORE_INSTANCE;
    *iid = recordOf(next->key, o->depth);
    *out = build(img, *o, *iid, *next->row, update);
    return WCFG_SUCCESS;
}

// ---------------------------------------------------------------------------
// Writes.

int Store::writeValues(const wdm::Object& o, uint64_t key, json_object* values,
                       const WriteMode& mode, Row& out, bool* changed) {
    std::string text;
    switch (writeDb_.readRow(o.id, key, text)) {
        case Db::Found::No:
            return WCFG_NO_SUCH_OBJECT;
        case Db::Found::Error:
            return WCFG_INTERNAL_ERROR;
        case Db::Found::Yes:
            break;
    }
    Row before;
    if (!rowFromText(o, text.c_str(), before))
        before = defaultRow(o);
    Row after = before;
    json_object_object_foreach(values, name, value) {
        int i = paramIndex(o, name);
        if (i < 0)
            return WCFG_NO_SUCH_PARAMETER;
        const wdm::Param& p = o.params[i];
        Value v;
        if (int rc = convertValue(p, value, v))
            return rc;
        // A value written back unchanged is accepted whatever its rules; a
        // count of instances is compared with the count, and never stored.
        int child = counted_[objectIndex(o)][i];
        if (child >= 0) {
            int n = 0;
            if (!writeDb_.countRange(wdm::model().objects[child].id, key,
                                     key + subtreeSpan(o.depth), n))
                return WCFG_INTERNAL_ERROR;
            if (v.i != n && !mode.readOnly)
                return WCFG_SET_READ_ONLY_PARAM;
            continue;
        }
        if (v == before[i])
            continue;
        if (int rc = checkParamRights(p, mode.secrets, before[i].s.empty() && before[i].i == 0))
            return rc;
        if (!p.writable && !mode.readOnly && !(p.device && callerIsDevice()))
            return WCFG_SET_READ_ONLY_PARAM;
        after[i] = std::move(v);
    }
    if (isAccountObject(o))
        if (int rc = sealAccount(writeDb_, o, key, before, after))
            return rc;
    if (changed)
        *changed = !(after == before);
    if (!writeDb_.writeRow(o.id, key, rowToText(o, after)))
        return WCFG_INTERNAL_ERROR;
    if (isAccountObject(o) && !writePasswords())
        return WCFG_INTERNAL_ERROR;
    out = std::move(after);
    return WCFG_SUCCESS;
}

int Store::set(int32_t oid, objIndex_t* iid, json_object* values, const WriteMode& mode) {
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o || o->isVirtual)
        return WCFG_INVALID_OBJECT;
    if (!iid || !values)
        return WCFG_INVALID_ARGUMENTS;
    if (!json_object_is_type(values, json_type_object))
        return WCFG_INVALID_FORMAT;
    if (iid->level != o->depth)
        return WCFG_NOT_INSTANCE;
    if (int rc = checkObjectRights(*o, *iid))
        return rc;
    {
        Write w(*this);
        if (!w.ok())
            return WCFG_INTERNAL_ERROR;
        uint64_t key = keyOf(*iid, o->depth);
        Row row;
        bool changed = false;
        if (int rc = writeValues(*o, key, values, mode, row, &changed))
            return rc;
        // A write that changes nothing leaves no entry: nobody is told of it.
        if (changed && !journal(JournalKind::Change, instancePath(*o, *iid)))
            return WCFG_INTERNAL_ERROR;
        if (!w.commit(true, objectIndex(*o), key, &row))
            return WCFG_INTERNAL_ERROR;
        pending_.emplace_back(oid, key);
    }
    finish(mode);
    return WCFG_SUCCESS;
}

// Rows with defaults for a new instance and its single sub-objects.
int Store::createInstance(const wdm::Object& o, const objIndex_t& iid) {
    uint64_t key = keyOf(iid, o.depth);
    Db::Found found = writeDb_.exists(o.id, key);
    if (found == Db::Found::Error)
        return WCFG_INTERNAL_ERROR;
    if (found == Db::Found::Yes)
        return WCFG_SUCCESS;
    if (!writeDb_.writeRow(o.id, key, rowToText(o, defaultRow(o))))
        return WCFG_INTERNAL_ERROR;
    for (int c : o.children) {
        const wdm::Object& ch = wdm::model().objects[c];
        if (!ch.table && !ch.isVirtual)
            if (int rc = createInstance(ch, iid))
                return rc;
    }
    return WCFG_SUCCESS;
}

// The number of a new instance: the one after the highest ever given below
// the parent, or, once every number has been used, the lowest free one.
int Store::newInstanceNumber(const wdm::Object& o, const objIndex_t& iid, int& number) {
    uint64_t parentKey = keyOf(iid, o.depth - 1);
    int count = 0, last = 0;
    if (!writeDb_.countRange(o.id, parentKey, parentKey + subtreeSpan(o.depth - 1), count) ||
        !writeDb_.lastNumber(o.id, parentKey, last))
        return WCFG_INTERNAL_ERROR;
    if (count >= o.maxInst)
        return WCFG_EXCEED_MAX_INS_NUM;
    objIndex_t rec = iid;
    number = last + 1;
    for (int n = 1; number > o.maxInst && n <= o.maxInst; ++n) {
        rec.idx[o.depth - 1] = static_cast<uint8_t>(n);
        Db::Found f = writeDb_.exists(o.id, keyOf(rec, o.depth));
        if (f == Db::Found::Error)
            return WCFG_INTERNAL_ERROR;
        if (f == Db::Found::No)
            number = n;
    }
    if (number > o.maxInst)
        return WCFG_EXCEED_MAX_INS_NUM;
    return writeDb_.setLastNumber(o.id, parentKey, std::max(number, last)) ? WCFG_SUCCESS
                                                                           : WCFG_INTERNAL_ERROR;
}

int Store::add(int32_t oid, objIndex_t* iid, json_object* values, const WriteMode& mode) {
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o || o->isVirtual)
        return WCFG_INVALID_OBJECT;
    if (!iid)
        return WCFG_INVALID_ARGUMENTS;
    // Tables without "create" grow only by the device's own writes (their
    // services, wcfgctl), never by a client's.
    if (!o->table || (!o->create && !mode.readOnly))
        return WCFG_INS_CREATE_ERR;
    if (iid->level != o->depth)
        return WCFG_NOT_INSTANCE;
    if (values && !json_object_is_type(values, json_type_object))
        return WCFG_INVALID_FORMAT;
    if (int rc = checkObjectRights(*o, *iid))
        return rc;
    objIndex_t rec = *iid;
    {
        Write w(*this);
        if (!w.ok())
            return WCFG_INTERNAL_ERROR;
        if (o->depth > 1) {
            Db::Found f = writeDb_.exists(parentTable(*o)->id, keyOf(*iid, o->depth - 1));
            if (f != Db::Found::Yes)
                return f == Db::Found::No ? WCFG_NO_SUCH_OBJECT : WCFG_INTERNAL_ERROR;
        }
        int n = 0;
        if (int rc = newInstanceNumber(*o, *iid, n))
            return rc;
        rec.idx[o->depth - 1] = static_cast<uint8_t>(n);
        if (int rc = createInstance(*o, rec))
            return rc;
        Row row;
        if (values)
            if (int rc = writeValues(*o, keyOf(rec, o->depth), values, mode, row))
                return rc;
        if (!journal(JournalKind::Add, instancePath(*o, rec)) || !w.commit(true))
            return WCFG_INTERNAL_ERROR;
        pending_.emplace_back(oid, keyOf(rec, o->depth));
    }
    iid->idx[o->depth - 1] = rec.idx[o->depth - 1];
    finish(mode);
    return WCFG_SUCCESS;
}

bool Store::deleteSubtree(const wdm::Object& o, const objIndex_t& iid) {
    uint64_t lo = keyOf(iid, o.depth);
    uint64_t hi = lo + subtreeSpan(o.depth);
    std::vector<int> stack{objectIndex(o)};
    while (!stack.empty()) {
        const wdm::Object& cur = wdm::model().objects[stack.back()];
        stack.pop_back();
        if (!cur.isVirtual && !writeDb_.eraseRange(cur.id, lo, hi))
            return false;
        for (int c : cur.children)
            stack.push_back(c);
    }
    return true;
}

int Store::del(int32_t oid, objIndex_t* iid, const WriteMode& mode) {
    const wdm::Object* o = wdm::model().byId(oid);
    if (!o || o->isVirtual)
        return WCFG_INVALID_OBJECT;
    if (!iid)
        return WCFG_INVALID_ARGUMENTS;
    if (!o->table)
        return WCFG_INS_CREATE_ERR;
    if (!o->create && !mode.readOnly)
        return WCFG_DELETE_REJECT;
    if (iid->level != o->depth)
        return WCFG_NOT_INSTANCE;
    if (int rc = checkObjectRights(*o, *iid))
        return rc;
    {
        Write w(*this);
        if (!w.ok())
            return WCFG_INTERNAL_ERROR;
        Db::Found f = writeDb_.exists(oid, keyOf(*iid, o->depth));
        if (f != Db::Found::Yes)
            return f == Db::Found::No ? WCFG_NO_SUCH_OBJECT : WCFG_INTERNAL_ERROR;
        if (!deleteSubtree(*o, *iid))
            return WCFG_INTERNAL_ERROR;
        if (isAccountObject(*o) && !writePasswords())
            return WCFG_INTERNAL_ERROR;
        if (!journal(JournalKind::Delete, instancePath(*o, *iid)) || !w.commit(true))
            return WCFG_INTERNAL_ERROR;
    }
    // The services learn of the instance that went away (a station list is
    // written anew, ...).
    if (ApplyHook hook = applyHookOf(*o)) {
        WcfgCallerScope device(WCFG_CALLER_DEVICE);
        hook(*o, *iid, nullptr);
    }
    WriteMode notifyOnly;
    notifyOnly.notify = true;
    finish(notifyOnly);
    return WCFG_SUCCESS;
}

int Store::noteChange(JournalKind kind, const std::string& path) {
    Write w(*this);
    if (!w.ok() || !journal(kind, path) || !w.commit(false))
        return WCFG_INTERNAL_ERROR;
    return WCFG_SUCCESS;
}

int Store::resetToDefaults() {
    {
        Write w(*this);
        if (!w.ok() || !writeDb_.removeAll())
            return WCFG_INTERNAL_ERROR;
        if (int rc = seedDefaults())
            return rc;
        if (!writePasswords() || !journal(JournalKind::Reset, "Device.") || !w.commit(true))
            return WCFG_INTERNAL_ERROR;
        pending_.clear();
    }
    WriteMode notifyOnly;
    notifyOnly.notify = true;
    finish(notifyOnly);
    return WCFG_SUCCESS;
}

// The default configuration, written into the open transaction.
int Store::seedDefaults() {
    WcfgCallerScope device(WCFG_CALLER_DEVICE);
    const wdm::Model& m = wdm::model();
    objIndex_t zero{};
    for (const wdm::Object& o : m.objects)
        if (o.depth == 0 && !o.isVirtual)
            if (int rc = createInstance(o, zero))
                return rc;
    JsonPtr defaults(json_tokener_parse(kDefaultConfiguration));
    if (!defaults)
        return WCFG_INTERNAL_ERROR;
    WriteMode seed;
    seed.readOnly = seed.secrets = true;
    json_object_object_foreach(defaults.get(), path, values) {
        objIndex_t iid{};
        const wdm::Object* o = m.byId(nameToOid(path, &iid));
        // Parent instances named in a path come first in the defaults.
        int rc = !o || iid.level != o->depth ? WCFG_INVALID_OBJECT : createInstance(*o, iid);
        Row row;
        if (!rc)
            rc = writeValues(*o, keyOf(iid, o->depth), values, seed, row);
        int last = 0;
        if (!rc && o->table) {
            uint64_t parent = keyOf(iid, o->depth - 1);
            int n = iid.idx[o->depth - 1];
            if (!writeDb_.lastNumber(o->id, parent, last) ||
                !writeDb_.setLastNumber(o->id, parent, std::max(last, n)))
                rc = WCFG_INTERNAL_ERROR;
        }
        if (rc) {
            wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "default %s: %d\n", path, rc);
            return rc;
        }
    }
    return WCFG_SUCCESS;
}

// A new database gets the defaults, once, whichever process opens it first.
void Store::seedIfEmpty() {
    for (const auto& t : published_->tables)
        if (!t->empty())
            return;
    Write w(*this);
    bool empty = false;
    if (!w.ok() || !writeDb_.isEmpty(empty) || !empty)
        return;
    if (seedDefaults() == WCFG_SUCCESS && writePasswords())
        w.commit(true);
}

// Makes the password store match the accounts, in case a process was killed
// between a commit and the file's replacement.
void Store::repairPasswordStore() {
    bool same = false;
    {
        std::lock_guard<std::mutex> lock(writeMutex_);
        same = passwordStoreCurrent(writeDb_);
    }
    if (same)
        return;
    Write w(*this);
    if (w.ok() && writePasswords())
        w.commit(false);
}

// An entry of the change journal, in the write transaction that makes the
// change: both commit, or neither.
bool Store::journal(JournalKind kind, const std::string& path) {
    // WHTTPD_JOURNAL_KEEP shortens the journal for tests of resumption.
    static const uint64_t keep = [] {
        const char* v = getenv("WHTTPD_JOURNAL_KEEP");
        long long n = v ? atoll(v) : 0;
        return n > 0 ? static_cast<uint64_t>(n) : kJournalKeep;
    }();
    return writeDb_.appendJournal(static_cast<int>(kind), path, keep);
}

// Rewrites the password store inside the write that changed the accounts,
// so that two processes replace it in the order of their commits.
bool Store::writePasswords() {
    passwordsWritten_ = true;
    return writePasswordStore(writeDb_);
}

void Store::finish(const WriteMode& mode) {
    if (mode.apply)
        runApplyHooks();
    if (mode.notify && storeHooks().changed)
        storeHooks().changed();
}

void Store::runApplyHooks() {
    std::vector<std::pair<int32_t, uint64_t>> work;
    {
        std::lock_guard<std::mutex> lock(writeMutex_);
        work.swap(pending_);
    }
    for (const auto& [oid, key] : work) {
        const wdm::Object* o = wdm::model().byId(oid);
        ApplyHook hook = o ? applyHookOf(*o) : nullptr;
        if (!hook)
            continue;
        objIndex_t iid = recordOf(key, o->depth);
        json_object* values = nullptr;
        if (get(oid, &iid, &values, false) != WCFG_SUCCESS)
            continue;
        JsonPtr owned(values);
        WcfgCallerScope device(WCFG_CALLER_DEVICE);
        hook(*o, iid, values);
    }
}

}  // namespace wcfg
