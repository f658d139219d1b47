// kill -9 in the middle of writes: wcfgctl (add, set, delete, passwd) and the
// daemon (POST, PUT, DELETE over HTTPS) write the same table from two
// processes while both are killed at random moments; afterwards every
// acknowledged write is there, no instance is half written, no two writes
// share an instance, and the password store is whole with mode 0600.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <signal.h>
#include <cstdlib>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "harness.h"

using namespace e2e;

namespace {

const char* const kTable = "Device.NAT.PortMapping.";

// What the writers know of one instance they created.
struct Expect {
    std::set<long> ports;    // the values its ports may hold
    bool maybeGone = false;  // a delete was tried
};

// The writers' shared record, by creation tag ("c1003", "d30007").
struct Model {
    std::mutex m;
    std::set<std::string> attempted;      // every tag an add was tried with
    std::map<std::string, Expect> acked;  // adds that were acknowledged
    std::set<std::string> passwords;      // passwords "user" may have now
};

std::string tuple(const std::string& tag, long port) {
    std::string p = std::to_string(port);
    return "{\"Description\":\"" + tag + "\",\"ExternalPort\":" + p + ",\"InternalPort\":" + p +
           "}";
}

std::string ports(long port) {
    std::string p = std::to_string(port);
    return "{\"ExternalPort\":" + p + ",\"InternalPort\":" + p + "}";
}

// Runs wcfgctl, killing it after a random moment one time in three when
// `rng` is given; true when it ran to its end with success.  Its output goes
// to `out`.
bool wcfgctl(const DeviceRoot& root, const std::vector<std::string>& args, std::mt19937* rng,
             std::string* out = nullptr) {
    std::vector<std::string> argv{WCFGCTL_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> av;
    for (auto& a : argv)
        av.push_back(const_cast<char*>(a.c_str()));
    av.push_back(nullptr);
    std::string rootEnv = "WHTTPD_ROOT=" + root.dir();
    // Under an emulator (scripts/cross) the program finds its CPU's libraries
    // through QEMU_LD_PREFIX.
    const char* prefix = getenv("QEMU_LD_PREFIX");
    std::string prefixEnv = std::string("QEMU_LD_PREFIX=") + (prefix ? prefix : "");
    char* envp[] = {const_cast<char*>(rootEnv.c_str()), const_cast<char*>("WLOG_LEVEL=3"),
                    prefix ? const_cast<char*>(prefixEnv.c_str()) : nullptr, nullptr};
    int fds[2];
    // Close-on-exec: a daemon started meanwhile by another thread must not
    // keep the pipe open (the read below would never end).
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        close(fds[0]);
        close(fds[1]);
        execve(av[0], av.data(), envp);
        _exit(127);
    }
    close(fds[1]);
    if (rng && std::uniform_int_distribution<int>(0, 2)(*rng) == 0) {
        std::this_thread::sleep_for(
            std::chrono::microseconds(std::uniform_int_distribution<int>(0, 20000)(*rng)));
        kill(pid, SIGKILL);
    }
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0)
        text.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (out)
        *out = text;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Every instance of the table by path, as wcfgctl prints it.
json_object* readTable(const DeviceRoot& root) {
    std::string out;
    if (!wcfgctl(root, {"get", kTable}, nullptr, &out))
        return nullptr;
    return json_tokener_parse(out.c_str());
}

std::string text(json_object* o, const char* key) {
    json_object* v = nullptr;
    return json_object_object_get_ex(o, key, &v) ? json_object_get_string(v) : "";
}

long number(json_object* o, const char* key) {
    json_object* v = nullptr;
    return json_object_object_get_ex(o, key, &v) ? json_object_get_int64(v) : -1;
}

// One writer's own instances: creation tag -> path.
using Owned = std::vector<std::pair<std::string, std::string>>;

void wcfgctlWriter(const DeviceRoot& root, Model& model, std::atomic<bool>& stop) {
    std::mt19937 rng(1);
    Owned mine;
    long next = 1000;
    while (!stop) {
        int op = std::uniform_int_distribution<int>(0, 9)(rng);
        if (op == 0) {
            std::string pw = "pw" + std::to_string(next++) + "x";
            {
                std::lock_guard<std::mutex> l(model.m);
                model.passwords.insert(pw);
            }
            if (wcfgctl(root, {"passwd", "user", pw}, &rng)) {
                std::lock_guard<std::mutex> l(model.m);
                model.passwords = {pw};
            }
        } else if (mine.size() < 6 && op < 6) {
            long port = next++;
            std::string tag = "c" + std::to_string(port), out;
            {
                std::lock_guard<std::mutex> l(model.m);
                model.attempted.insert(tag);
            }
            if (wcfgctl(root, {"add", kTable, tuple(tag, port)}, &rng, &out)) {
                std::lock_guard<std::mutex> l(model.m);
                model.acked[tag].ports = {port};
                mine.emplace_back(tag, out.substr(0, out.find('\n')));
            }
        } else if (!mine.empty() && op < 8) {
            auto& [tag, path] =
                mine[std::uniform_int_distribution<size_t>(0, mine.size() - 1)(rng)];
            long port = next++;
            {
                std::lock_guard<std::mutex> l(model.m);
                model.acked[tag].ports.insert(port);
            }
            if (wcfgctl(root, {"set", path, ports(port)}, &rng)) {
                std::lock_guard<std::mutex> l(model.m);
                model.acked[tag].ports = {port};
            }
        } else if (!mine.empty()) {
            {
                std::lock_guard<std::mutex> l(model.m);
                model.acked[mine.front().first].maybeGone = true;
            }
            if (wcfgctl(root, {"del", mine.front().second}, &rng)) {
                std::lock_guard<std::mutex> l(model.m);
                model.acked.erase(mine.front().first);
            }
            mine.erase(mine.begin());
        }
        if (op == 9) {
            // Adds whose answer was lost may have stayed: take them away.
            json_object* all = readTable(root);
            if (!all)
                continue;
            json_object_object_foreach(all, path, inst) {
                std::string tag = text(inst, "Description");
                std::lock_guard<std::mutex> l(model.m);
                if (tag[0] == 'c' && model.attempted.count(tag) && !model.acked.count(tag))
                    wcfgctl(root, {"del", path}, &rng);
            }
            json_object_put(all);
        }
    }
}

// The daemon writer: POST, PUT and DELETE through one session, logging in
// again whenever the daemon was restarted.
class DaemonWriter {
  public:
    DaemonWriter(const DeviceRoot& root, int port, Model& model)
        : root_(root), c_(port), model_(model) {}

    void run(std::atomic<bool>& stop) {
        while (!stop) {
            if (s_.id.empty() && !relogin())
                continue;
            int op = std::uniform_int_distribution<int>(0, 9)(rng_);
            if (!pending_.empty())
                settle();
            else if (mine_.size() < 6 && op < 6)
                add();
            else if (!mine_.empty() && op < 8)
                set();
            else if (!mine_.empty())
                del();
        }
    }

  private:
    bool relogin() {
        e2e::sleepMs(20);
        s_ = Session{};
        return c_.login("admin", "1234abcd", &s_).status == 200;
    }
    // A failed request: no answer, or the session is gone with the daemon.
    bool lost(const Reply& r) {
        if (r.ok && r.status == 200)
            return false;
        s_.id.clear();
        return true;
    }
    void add() {
        long port = next_++;
        std::string tag = "d" + std::to_string(port);
        {
            std::lock_guard<std::mutex> l(model_.m);
            model_.attempted.insert(tag);
        }
        Reply r = c_.write("POST", std::string("TR181/Value/") + kTable, tuple(tag, port), s_);
        bool acked = !lost(r) && operStatus(r) == "Success";
        if (acked) {
            std::lock_guard<std::mutex> l(model_.m);
            model_.acked[tag].ports = {port};
        }
        // Its number is read from the table; an unanswered add may have
        // stayed, and is then taken away.
        pending_.emplace_back(tag, acked);
    }
    // Finds the instances of the adds made, deletes those that were never
    // acknowledged, and the instances that an interrupted add left empty.
    void settle() {
        json_object* all = readTable(root_);
        if (!all)
            return;
        std::vector<std::string> doomed;
        json_object_object_foreach(all, path, inst) {
            std::string tag = text(inst, "Description");
            if (tag.empty() && number(inst, "ExternalPort") == 0)
                doomed.push_back(path);
            for (auto& [t, acked] : pending_) {
                if (t != tag)
                    continue;
                if (acked)
                    mine_.emplace_back(tag, path);
                else
                    doomed.push_back(path);
            }
        }
        json_object_put(all);
        pending_.clear();
        for (const std::string& path : doomed)
            c_.write("DELETE", "TR181/Value/" + path, "", s_);
    }
    void set() {
        auto& [tag, path] = mine_[std::uniform_int_distribution<size_t>(0, mine_.size() - 1)(rng_)];
        long port = next_++;
        {
            std::lock_guard<std::mutex> l(model_.m);
            model_.acked[tag].ports.insert(port);
        }
        Reply r = c_.write("PUT", "TR181/Value/" + path, ports(port), s_);
        if (!lost(r) && operStatus(r) == "Success") {
            std::lock_guard<std::mutex> l(model_.m);
            model_.acked[tag].ports = {port};
        }
    }
    void del() {
        {
            std::lock_guard<std::mutex> l(model_.m);
            model_.acked[mine_.front().first].maybeGone = true;
        }
        Reply r = c_.write("DELETE", "TR181/Value/" + mine_.front().second, "", s_);
        if (!lost(r) && operStatus(r) == "Success") {
            std::lock_guard<std::mutex> l(model_.m);
            model_.acked.erase(mine_.front().first);
        }
        mine_.erase(mine_.begin());
    }

    const DeviceRoot& root_;
    Client c_;
    Model& model_;
    Session s_;
    std::mt19937 rng_{2};
    long next_ = 30000;
    Owned mine_;
    std::vector<std::pair<std::string, bool>> pending_;
};

}  // namespace

TEST(StoreCrash, KillNineDuringWritesLosesNothing) {
    DeviceRoot root;
    ASSERT_EQ(0, e2e::setMaxLoginAccounts(root, 0));
    Daemon d;
    int port = e2e::startDaemon(d, root);
    ASSERT_NE(0, port) << d.out() << d.err();
    Model model;
    model.passwords = {"user1234"};
    std::atomic<bool> stop{false};
    std::thread a([&] { wcfgctlWriter(root, model, stop); });
    DaemonWriter writer(root, port, model);
    std::thread b([&] { writer.run(stop); });

    // The daemon is killed and started again, again and again: a number of
    // times, not for a time (a slow CPU restarts fewer times in a second).
    std::mt19937 rng(3);
    int restarts = 0;
    bool up = true;
    while (up && restarts < 8) {
        e2e::sleepMs(std::uniform_int_distribution<int>(300, 900)(rng));
        d.signal(SIGKILL);
        d.wait(5000);
        up = d.start(root, {"-s", std::to_string(port)}) && d.waitReady(port);
        ++restarts;
    }
    stop = true;
    a.join();
    b.join();
    ASSERT_TRUE(up) << d.out() << d.err();

    json_object* all = readTable(root);
    ASSERT_NE(nullptr, all);
    std::map<std::string, int> seen;
    json_object_object_foreach(all, path, inst) {
        std::string tag = text(inst, "Description");
        // Whole objects only: the ports were always written together (the
        // default mapping "web" apart).
        if (tag != "web") {
            EXPECT_EQ(number(inst, "ExternalPort"), number(inst, "InternalPort")) << path;
        }
        EXPECT_TRUE(tag == "web" || tag.empty() || model.attempted.count(tag)) << path << tag;
        if (!tag.empty())
            ++seen[tag];
        auto it = model.acked.find(tag);
        if (it != model.acked.end()) {
            EXPECT_TRUE(it->second.ports.count(number(inst, "ExternalPort"))) << path << tag;
        }
    }
    json_object_put(all);
    int acknowledged = 0;
    for (const auto& [tag, expect] : model.acked) {
        if (!expect.maybeGone) {
            EXPECT_EQ(1, seen[tag]) << "acknowledged add " << tag;
        }
        ++acknowledged;
    }
    for (const auto& [tag, n] : seen)
        EXPECT_EQ(1, n) << tag;
    EXPECT_GT(acknowledged, 5);
    printf("[ stats    ] %d daemon restarts, %zu adds tried, %d acknowledged and kept\n", restarts,
           model.attempted.size(), acknowledged);

    // The password store: whole, private, and holding the store's line.
    struct stat st;
    ASSERT_EQ(0, stat(root.path("/etc/shadow").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    std::string out;
    ASSERT_EQ(0, root.wcfgctl({"get", "Device.X_OLVEX_LoginCfg.LogGp.3.Account.1."}, &out));
    json_object* account = json_tokener_parse(out.c_str());
    EXPECT_NE(std::string::npos, root.read("/etc/shadow").find(text(account, "shadow") + "\n"));
    json_object_put(account);
    EXPECT_EQ(0, d.stop());
    // Wrong candidates must not lock the account before the right one.
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_LoginCfg.LogGp.3.Account.1.",
                               "{\"AccountRetryTime\": 0}"}));
    Daemon again;
    port = e2e::startDaemon(again, root);
    ASSERT_NE(0, port);
    int logins = 0;
    for (const std::string& pw : model.passwords)
        logins += Client(port).login("user", pw).status == 200;
    EXPECT_EQ(1, logins);
    EXPECT_EQ(0, again.stop());
}
