// The unit tests' device in memory (memory_device.h).
#include "memory_device.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "device/dm_def.h"
#include "simulator/store/store.h"

namespace fake {

namespace {

thread_local int tCaller = WCFG_CALLER_DEVICE;

}  // namespace

class MemoryDevice::Reader : public device::JournalReader {
  public:
    explicit Reader(MemoryDevice& d) : d_(d) {}
    bool since(uint64_t after, int limit, std::vector<wcfg::JournalEntry>& out, uint64_t* oldest,
               uint64_t* latest) override {
        return d_.readSince(after, limit, out, oldest, latest);
    }
    bool bounds(uint64_t& oldest, uint64_t& latest) override {
        std::vector<wcfg::JournalEntry> none;
        return d_.readSince(~uint64_t{0}, 0, none, &oldest, &latest);
    }

  private:
    MemoryDevice& d_;
};

MemoryDevice::MemoryDevice() : before_(device::current()) {
    device::install(device::Device{this, this, this, this, this});
}

MemoryDevice::~MemoryDevice() {
    device::install(before_);
}

MemoryDevice::Key MemoryDevice::keyOf(int32_t oid, const objIndex_t& iid) {
    const wdm::Object* o = wdm::model().byId(oid);
    int depth = o ? o->depth : 0;
    return {oid, std::vector<int>(iid.idx, iid.idx + std::min(depth, 6))};
}

// The object's path with its instance numbers in place of "{i}".
std::string MemoryDevice::pathOf(const Key& k) {
    const wdm::Object* o = wdm::model().byId(k.first);
    if (!o)
        return "";
    std::string path = o->path;
    for (int n : k.second) {
        size_t at = path.find("{i}");
        if (at == std::string::npos)
            break;
        path.replace(at, 3, std::to_string(n));
    }
    return path;
}

void MemoryDevice::put(const std::string& path, const std::string& values) {
    objIndex_t iid{};
    int32_t oid = nameToOid(path.c_str(), &iid);
    std::lock_guard<std::mutex> lock(m_);
    objects_[keyOf(oid, iid)] = JsonPtr(json_tokener_parse(values.c_str()));
}

std::string MemoryDevice::at(const std::string& path) {
    objIndex_t iid{};
    int32_t oid = nameToOid(path.c_str(), &iid);
    std::lock_guard<std::mutex> lock(m_);
    auto it = objects_.find(keyOf(oid, iid));
    return it == objects_.end() ? "" : json_object_to_json_string_ext(it->second.get(), 0);
}

std::vector<wcfg::JournalEntry> MemoryDevice::journalEntries() {
    std::lock_guard<std::mutex> lock(m_);
    return journal_;
}

// Paths resolve by the data-model definition, as on the embedded device.
int32_t MemoryDevice::nameToOid(const char* path, objIndex_t* iid) {
    return wcfg::nameToOid(path, iid);
}

int MemoryDevice::get(int32_t oid, objIndex_t* iid, bool, json_object** out) {
    std::lock_guard<std::mutex> lock(m_);
    readCallers_.push_back(tCaller);
    auto it = objects_.find(keyOf(oid, *iid));
    if (it == objects_.end())
        return WCFG_NO_SUCH_OBJECT;
    *out = nullptr;
    json_object_deep_copy(it->second.get(), out, nullptr);
    return WCFG_SUCCESS;
}

// The instance after the record's among those with the same parents.
int MemoryDevice::getNext(int32_t oid, objIndex_t* iid, bool, json_object** out) {
    std::lock_guard<std::mutex> lock(m_);
    Key from = keyOf(oid, *iid);
    if (from.second.empty())
        return WCFG_NO_MORE_INSTANCE;
    size_t last = from.second.size() - 1;
    if (iid->level <= last)
        from.second[last] = 0;
    for (const auto& [k, v] : objects_) {
        if (k.first != oid || k.second.size() != from.second.size() ||
            !std::equal(k.second.begin(), k.second.begin() + last, from.second.begin()) ||
            k.second[last] <= from.second[last])
            continue;
        iid->idx[last] = static_cast<uint8_t>(k.second[last]);
        iid->level = static_cast<uint8_t>(last + 1);
        json_object_deep_copy(v.get(), out, nullptr);
        return WCFG_SUCCESS;
    }
    return WCFG_NO_MORE_INSTANCE;
}

int MemoryDevice::set(int32_t oid, objIndex_t* iid, json_object* values, uint32_t, bool) {
    Key k = keyOf(oid, *iid);
    {
        std::lock_guard<std::mutex> lock(m_);
        JsonPtr& cur = objects_[k];
        if (!cur)
            cur = JsonPtr(json_object_new_object());
        json_object_object_foreach(values, name, value) {
            json_object_object_add(cur.get(), name, json_object_get(value));
        }
    }
    journal(wcfg::JournalKind::Change, pathOf(k));
    return WCFG_SUCCESS;
}

// A new instance numbered one above the highest of its table.
int MemoryDevice::add(int32_t oid, objIndex_t* iid) {
    Key k = keyOf(oid, *iid);
    if (k.second.empty())
        return WCFG_INS_CREATE_ERR;
    size_t last = k.second.size() - 1;
    {
        std::lock_guard<std::mutex> lock(m_);
        int top = 0;
        for (const auto& [other, v] : objects_)
            if (other.first == oid &&
                std::equal(other.second.begin(), other.second.begin() + last, k.second.begin()))
                top = std::max(top, other.second[last]);
        k.second[last] = top + 1;
        objects_[k] = JsonPtr(json_object_new_object());
    }
    iid->idx[last] = static_cast<uint8_t>(k.second[last]);
    iid->level = static_cast<uint8_t>(last + 1);
    journal(wcfg::JournalKind::Add, pathOf(k));
    return WCFG_SUCCESS;
}

int MemoryDevice::del(int32_t oid, objIndex_t* iid) {
    Key k = keyOf(oid, *iid);
    {
        std::lock_guard<std::mutex> lock(m_);
        if (!objects_.erase(k))
            return WCFG_NO_SUCH_OBJECT;
    }
    journal(wcfg::JournalKind::Delete, pathOf(k));
    return WCFG_SUCCESS;
}

uint64_t MemoryDevice::dataVersion() {
    std::lock_guard<std::mutex> lock(m_);
    return version_;
}

std::vector<int> MemoryDevice::readCallers() {
    std::lock_guard<std::mutex> lock(m_);
    return readCallers_;
}

void MemoryDevice::setCaller(int caller) {
    tCaller = caller;
}

int MemoryDevice::caller() {
    return tCaller;
}

int MemoryDevice::request(uint32_t type, const char* payload) {
    std::lock_guard<std::mutex> lock(m_);
    requests.push_back(std::to_string(type) + " " + (payload ? payload : ""));
    return WCFG_SUCCESS;
}

void MemoryDevice::journal(wcfg::JournalKind kind, const std::string& path) {
    {
        std::lock_guard<std::mutex> lock(m_);
        uint64_t seq = journal_.empty() ? 1 : journal_.back().seq + 1;
        journal_.push_back({seq, kind, path});
        ++version_;
        ++writes_;
    }
    cv_.notify_all();
}

bool MemoryDevice::readSince(uint64_t after, int limit, std::vector<wcfg::JournalEntry>& out,
                             uint64_t* oldest, uint64_t* latest) {
    std::lock_guard<std::mutex> lock(m_);
    uint64_t last = journal_.empty() ? 0 : journal_.back().seq;
    if (oldest)
        *oldest = journal_.empty() ? last + 1 : journal_.front().seq;
    if (latest)
        *latest = last;
    for (const wcfg::JournalEntry& j : journal_)
        if (j.seq > after && static_cast<int>(out.size()) < limit)
            out.push_back(j);
    return true;
}

std::unique_ptr<device::JournalReader> MemoryDevice::reader() {
    return std::make_unique<Reader>(*this);
}

uint64_t MemoryDevice::position() {
    std::lock_guard<std::mutex> lock(m_);
    return journal_.empty() ? 0 : journal_.back().seq;
}

int MemoryDevice::note(wcfg::JournalKind kind, const char* path) {
    journal(kind, path);
    return WCFG_SUCCESS;
}

uint32_t MemoryDevice::writeCount() {
    std::lock_guard<std::mutex> lock(m_);
    return writes_;
}

void MemoryDevice::waitForWrite(uint32_t seen, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_);
    uint64_t wakes = wakes_;
    cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                 [&] { return writes_ != seen || wakes_ != wakes; });
}

void MemoryDevice::wakeWaiters() {
    {
        std::lock_guard<std::mutex> lock(m_);
        ++wakes_;
    }
    cv_.notify_all();
}

int MemoryDevice::edit(json_object* request, char* reply, size_t size) {
    std::lock_guard<std::mutex> lock(m_);
    accountEdits.push_back(json_object_to_json_string_ext(request, 0));
    if (reply && size)
        reply[0] = '\0';
    return 0;
}

int MemoryDevice::receive(void**, int) {
    return -1;
}

int MemoryDevice::sendAndGetReply(const void*, void**, int) {
    return WCFG_TIMEOUT;
}

int MemoryDevice::send(int, const void* msg, size_t length) {
    std::lock_guard<std::mutex> lock(m_);
    const char* p = static_cast<const char*>(msg);
    sent.emplace_back(p, p + length);
    return 0;
}

int MemoryDevice::shell(int, const char* cmd) {
    std::lock_guard<std::mutex> lock(m_);
    commands.push_back(cmd ? cmd : "");
    return 0;
}

int MemoryDevice::exec(int, const char* const argv[], long long) {
    std::string line;
    for (int i = 0; argv && argv[i]; ++i)
        line += (i ? " " : "") + std::string(argv[i]);
    std::lock_guard<std::mutex> lock(m_);
    commands.push_back(line);
    return 0;
}

}  // namespace fake
