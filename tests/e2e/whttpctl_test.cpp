// whttpctl, the command-line client, as a real client of the real daemon:
// a whole session (login, reads, writes that follow the key renewal,
// logout), batches, the schema and method list, the password change, the
// device actions, the firmware upgrade against the cloud stand-in,
// discovery, TLS trust, the password prompt, and the client's own defences: bad paths and JSON,
// unreachable or silent devices, and state files that an attacker planted,
// opened up or swapped.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "fixture.h"
#include "harness.h"
#include "base/json_util.h"
#include "relay.h"

namespace {

struct Outcome {
    int status = -1;  // exit status; -1000 when it had to be killed
    std::string out, err;
};

std::string slurp(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void spit(const std::string& file, const std::string& text) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

// A member of a JSON text, as JSON text ("<none>" when absent).
std::string member(const std::string& json, const std::string& name) {
    JsonPtr doc(json_tokener_parse(json.c_str()));
    json_object* v = nullptr;
    if (!doc || !json_object_object_get_ex(doc.get(), name.c_str(), &v))
        return "<none>";
    return json_object_to_json_string_ext(v, JSON_C_TO_STRING_PLAIN);
}

// In a child: becomes whttpctl with `args`, its state below `dir`.
// It dies with `parent`, the process that forked it.
[[noreturn]] void execCtl(pid_t parent, const std::string& dir,
                          const std::vector<std::string>& args) {
    e2e::dieWithParent(parent);
    setenv("WHTTPCTL_STATE", (dir + "/state/session").c_str(), 1);
    std::vector<char*> argv{const_cast<char*>(WHTTPCTL_BIN)};
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

// Runs whttpctl with `args` in `dir` (its state below it), `input` on its
// standard input and umask 0, so that every mode bit it sets is its own.
// Killed after `limitMs`: a hang shows as -1000, never as a stuck test.
std::atomic<int> gRunSerial{0};

// The number the latest run took, and where a run's standard output goes.
int nextRun() {
    return gRunSerial.load();
}
std::string runOutput(const std::string& dir, int run) {
    return dir + "/run" + std::to_string(run) + ".out";
}

Outcome runCtl(const std::string& dir, const std::vector<std::string>& args,
               const std::string& input = "", int limitMs = 60000) {
    std::string base = dir + "/run" + std::to_string(++gRunSerial);
    spit(base + ".in", input);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        umask(0);
        int in = open((base + ".in").c_str(), O_RDONLY);
        int out = open((base + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = open((base + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        execCtl(parent, dir, args);
    }
    Outcome r;
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > end) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            r.status = -1000;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (r.status != -1000)
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = slurp(base + ".out");
    r.err = slurp(base + ".err");
    return r;
}

// Prompts and what a user types at each.
using Dialogue = std::vector<std::pair<std::string, std::string>>;

// Runs whttpctl on a terminal (a pseudo-terminal for all three streams),
// typing each answer of `dialogue` once its prompt has appeared.  The exit
// status, and all that the terminal showed in `out`.
Outcome runTty(const std::string& dir, const std::vector<std::string>& args,
               const Dialogue& dialogue = {}) {
    int master = -1;
    pid_t parent = getpid();
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        execCtl(parent, dir, args);
    }
    Outcome r;
    size_t next = 0, seen = 0;
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < end) {
        if (next < dialogue.size()) {
            size_t at = r.out.find(dialogue[next].first, seen);
            const std::string& input = dialogue[next].second;
            if (at != std::string::npos &&
                write(master, input.data(), input.size()) == ssize_t(input.size())) {
                seen = at + dialogue[next].first.size();
                ++next;
            }
        }
        pollfd p{master, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        char buf[4096];
        ssize_t n = read(master, buf, sizeof buf);
        if (n <= 0)
            break;  // the child ended: EIO on the master
        r.out.append(buf, static_cast<size_t>(n));
    }
    close(master);
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == 0)
        kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return r;
}

class Whttpctl : public e2e::DaemonTest {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/whttpctl-e2e-XXXXXX";
        home = mkdtemp(tmpl);
    }
    void TearDown() override {
        e2e::DaemonTest::TearDown();
        (void)!system(("rm -rf '" + home + "'").c_str());
    }
    std::string url() const { return "https://127.0.0.1:" + std::to_string(port); }
    // whttpctl against this daemon, its certificate accepted as it is.
    Outcome ctl(std::vector<std::string> args, const std::string& input = "") {
        args.insert(args.begin(), {"--url", url(), "--insecure"});
        return runCtl(home, args, input);
    }
    void login() {
        Outcome r = ctl({"login", "admin", "1234abcd"});
        ASSERT_EQ(0, r.status) << r.err;
    }
    std::string statePath() const { return home + "/state/session"; }
    std::string stateEntry(const std::string& name) {
        return member(member(slurp(statePath()), url()), name);
    }
    std::string journalWith(const std::string& text) {
        std::string j;
        for (int i = 0; i < 500 && j.find(text) == std::string::npos; ++i) {
            root.wcfgctl({"requests"}, &j);
            if (j.find(text) == std::string::npos)
                e2e::sleepMs(20);
        }
        return j;
    }

    std::string home;
};

// The mode bits of a path (not following a link).
mode_t modeOf(const std::string& path) {
    struct stat st {};
    lstat(path.c_str(), &st);
    return st.st_mode & 07777;
}

}  // namespace

TEST_F(Whttpctl, WholeSessionFollowsEveryKeyRenewal) {
    start();
    Outcome r = ctl({"login", "admin", "1234abcd"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("\"Success\"", member(r.out, "oper_status"));
    EXPECT_NE(std::string::npos, r.out.find("/api/v1/UserLogin"));
    // The state is private even under umask 0, and the credential in it is
    // shown nowhere.
    EXPECT_EQ(0600u, modeOf(statePath()));
    EXPECT_EQ(0700u, modeOf(home + "/state"));
    std::string cookie = stateEntry("cookie");
    ASSERT_GT(cookie.size(), 10u);
    EXPECT_EQ(std::string::npos, r.out.find(cookie.substr(1, cookie.size() - 2)));
    EXPECT_EQ("<none>", member(r.out, "sessionkey"));

    r = ctl({"get", "Device.DeviceInfo."});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("\"NX5150\"", member(member(r.out, "Object"), "ModelName"));
    Outcome first = ctl({"get", "Device.NAT."});
    Outcome subtree = ctl({"get", "Device.NAT.", "--subtree"});
    ASSERT_EQ(0, subtree.status) << subtree.err;
    EXPECT_EQ(std::string::npos, first.out.find("\"InternalClient\""));
    EXPECT_NE(std::string::npos, subtree.out.find("\"InternalClient\": \"192.168.1.33\""));

    // Writes in a row: each uses the key the one before brought.
    std::string key = stateEntry("key");
    for (const char* description : {"one", "two", "three"}) {
        r = ctl({"set", "Device.NAT.PortMapping.1.",
                 std::string("{\"Description\":\"") + description + "\"}"});
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_EQ(std::string("\"") + description + "\"",
                  member(member(r.out, "Object"), "Description"));
        EXPECT_NE(key, stateEntry("key"));
        key = stateEntry("key");
    }
    r = ctl({"add", "Device.NAT.PortMapping.", R"({"ExternalPort":2222,"InternalPort":22})"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("2222", member(member(r.out, "Object"), "ExternalPort"));
    std::string out;
    root.wcfgctl({"get", "Device.NAT.PortMapping.2."}, &out);
    EXPECT_NE(std::string::npos, out.find("2222")) << out;
    r = ctl({"del", "Device.NAT.PortMapping.2."});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(0, root.wcfgctl({"get", "Device.NAT.PortMapping.2."}));
    r = ctl({"add", "Device.NAT.PortMapping."});  // no values: the defaults
    EXPECT_EQ(0, r.status) << r.err;

    // A key that the device has renewed since is refused, and says so.
    std::string saved = slurp(statePath());
    ASSERT_EQ(0, ctl({"set", "Device.NAT.PortMapping.1.", R"({"Description":"x"})"}).status);
    std::string renewed = slurp(statePath());
    spit(statePath(), saved);
    r = ctl({"set", "Device.NAT.PortMapping.1.", R"({"Description":"y"})"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("whttpctl: Invalid SessionKey (HTTP 403)\n", r.err);
    spit(statePath(), renewed);

    r = ctl({"logout"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("<none>", member(slurp(statePath()), url()));
    r = ctl({"get", "Device.DeviceInfo."});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("not logged in")) << r.err;
    // The device ended the session too: its cookie no longer opens anything.
    spit(statePath(), renewed);
    r = ctl({"get", "Device.DeviceInfo."});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("whttpctl: Timeout (HTTP 504)\n", r.err);
}

TEST_F(Whttpctl, PrettyOrCompactTheSameDocument) {
    start();
    login();
    // An object without a clock in it (DeviceInfo's UpTime moves on between
    // two runs).
    Outcome pretty = ctl({"get", "Device.NAT.PortMapping.1."});
    Outcome compact = ctl({"--compact", "get", "Device.NAT.PortMapping.1."});
    ASSERT_EQ(0, pretty.status);
    ASSERT_EQ(0, compact.status);
    EXPECT_GT(e2e::countOf(pretty.out, "\n"), 5u);
    EXPECT_EQ(1u, e2e::countOf(compact.out, "\n"));
    JsonPtr a(json_tokener_parse(pretty.out.c_str())), b(json_tokener_parse(compact.out.c_str()));
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(json_object_equal(a.get(), b.get())) << pretty.out << compact.out;
}

TEST_F(Whttpctl, BatchSchemaAndMethods) {
    start();
    login();
    std::string file = home + "/batch.json";
    spit(file, R"([{"object_path":"Device.NAT.PortMapping.1.","Description":"batch"},
                  {"object_path":"Device.X_OLVEX_EasyMesh.","Enable":true}])");
    Outcome r = ctl({"batch", file});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("\"Description\": \"batch\""));
    // The whole body form, from standard input, with an element the device
    // refuses: the batch says "Success" overall, the client does not.
    r = ctl({"batch", "-"}, R"({"MultiObjects":true,"TR181_Objects":[
        {"object_path":"Device.NAT.PortMapping.1.","ExternalPort":"not a number"}]})");
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("Device.NAT.PortMapping.1.: ")) << r.err;
    // Checked before sending: a path outside the tree, no JSON.
    spit(file, R"([{"object_path":"Device.NAT.PortMapping.1."},{"object_path":"X."}])");
    EXPECT_EQ(2, ctl({"batch", file}).status);
    spit(file, "[{");
    EXPECT_EQ(2, ctl({"batch", file}).status);
    EXPECT_EQ(2, ctl({"batch", home + "/missing.json"}).status);

    r = ctl({"schema", "Device.NAT.PortMapping."});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE("<none>", member(member(member(r.out, "Object"), "ExternalPort"), "_Type"));
    r = ctl({"schema", "Device.NAT.", "--subtree"});
    EXPECT_NE("<none>", member(member(r.out, "Object"), "PortMapping")) << r.out;
    r = ctl({"methods"});
    ASSERT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.out.find("\"/api/v1/FOTA?action=online\"")) << r.out;
}

TEST_F(Whttpctl, PasswdThenLoginWithTheNewPassword) {
    start();
    login();
    // Passwords come on standard input when it is no terminal.
    Outcome r = ctl({"passwd"}, "wrong1234\nn3wPassword\n");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("whttpctl: Invalid Username or Password (HTTP 200)\n", r.err);
    r = ctl({"passwd"}, "1234abcd\nn3wPassword\n");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(1, ctl({"login", "admin", "1234abcd"}).status);
    r = ctl({"login", "admin"}, "n3wPassword\n");  // the password asked for
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(2, ctl({"login", "admin"}).status);  // nothing to read: no password
}

TEST_F(Whttpctl, DeviceActionsReachTheDevice) {
    start();
    login();
    Outcome r = ctl({"reboot"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, journalWith("\"req\":\"reboot\"").find("\"req\":\"reboot\""));
    ASSERT_EQ(0, root.wcfgctl({"requests", "--clear"}));
    r = ctl({"mesh-reboot", "--device", "AA"});
    EXPECT_EQ(0, r.status) << r.err;
    std::string j = journalWith("vx1905App");
    EXPECT_NE(std::string::npos, j.find("\"vx1905App\",\"args\":[\"2\",\"AA\"]")) << j;
    // A device name cannot smuggle in another query parameter.
    r = ctl({"mesh-reset", "--device", "BB&device=controller"});
    EXPECT_EQ(0, r.status) << r.err;
    j = journalWith("\"10\",\"BB&device=controller\"");
    EXPECT_NE(std::string::npos, j.find("\"10\",\"BB&device=controller\"")) << j;
    EXPECT_EQ(std::string::npos, j.find("\"req\":\"reset\""));
    r = ctl({"mesh-reset", "--device", "controller"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, journalWith("\"req\":\"reset\"").find("\"req\":\"reset\""));
    EXPECT_EQ(2, ctl({"reboot", "--device", "AA"}).status);  // not an option of reboot
}

TEST_F(Whttpctl, FirmwareCheckAndUpgrade) {
    e2e::Cloud cloud;
    ASSERT_TRUE(cloud.start(root)) << cloud.err();
    start();
    login();
    Outcome r = ctl({"fota", "check"});
    ASSERT_EQ(0, r.status) << r.err;
    std::string found = member(r.out, "Object");
    EXPECT_EQ("true", member(found, "NewFWAvailable"));
    EXPECT_EQ("15", member(found, "LastFWUpdateStatus"));
    // A download the cloud refuses: the device's status on stderr.
    knob("cloud.image", "forbidden403");
    r = ctl({"fota", "upgrade"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("whttpctl: WCFG_INTERNAL_ERROR (HTTP 400)\n", r.err);
    knob("cloud.image", "ok");
    ASSERT_EQ(0, ctl({"fota", "check"}).status);
    r = ctl({"fota", "upgrade"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("\"WCFG_SUCCESS\"", member(r.out, "oper_status"));
    EXPECT_EQ("", r.err);  // no bar when standard error is no terminal
    // The device installs it after the answer.
    const std::string installed = "\"version\":\"V1.21(ABCD.8)C0\",\"result\":0";
    std::string j = journalWith(installed);
    EXPECT_NE(std::string::npos, j.find(installed)) << j;
    EXPECT_EQ(2, ctl({"fota", "now"}).status);
}

TEST_F(Whttpctl, OnATerminalThePasswordIsNotEchoedAndTheWaitShows) {
    e2e::Cloud cloud;
    ASSERT_TRUE(cloud.start(root)) << cloud.err();
    start();
    std::vector<std::string> base{"--url", url(), "--insecure"};
    auto with = [&](std::vector<std::string> args) {
        args.insert(args.begin(), base.begin(), base.end());
        return args;
    };
    Outcome r = runTty(home, with({"login", "admin"}), {{"Password for admin: ", "1234abcd\n"}});
    ASSERT_EQ(0, r.status) << r.out;
    EXPECT_EQ(std::string::npos, r.out.find("1234abcd")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("\"oper_status\": \"Success\"")) << r.out;
    ASSERT_EQ(0, runCtl(home, with({"fota", "check"})).status);
    r = runTty(home, with({"fota", "upgrade"}));
    EXPECT_EQ(0, r.status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("device downloading the firmware [")) << r.out;
}

TEST_F(Whttpctl, DiscoverListsTheDevicesThatAnswer) {
    start();
    std::string udp = std::to_string(d.discoveryPort());
    Outcome r = runCtl(home, {"discover", "127.0.0.1", "--port", udp, "--wait", "1500"});
    ASSERT_EQ(0, r.status) << r.err;
    JsonPtr list(json_tokener_parse(r.out.c_str()));
    ASSERT_TRUE(list && json_object_is_type(list.get(), json_type_array)) << r.out;
    ASSERT_EQ(1u, json_object_array_length(list.get()));
    std::string one = json_object_to_json_string(json_object_array_get_idx(list.get(), 0));
    EXPECT_EQ("\"NX5150\"", member(one, "ModelName"));
    EXPECT_EQ("\"127.0.0.1\"", member(one, "Address"));
    EXPECT_NE(std::string::npos, one.find("\"HttpsPort\": " + std::to_string(port)));
    // An agent stays silent: nothing found, within the wait.
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_EasyMesh.", R"({"Role":2})"}));
    r = runCtl(home, {"discover", "127.0.0.1", "--port", udp, "--wait", "300"}, "", 20000);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("whttpctl: no device answered within 300 ms\n", r.err);
    EXPECT_EQ(2, runCtl(home, {"discover", "127.0.0.1", "--port", "70000"}).status);
    EXPECT_EQ(2, runCtl(home, {"discover", "no.such.host.invalid", "--wait", "10"}).status);
}

TEST_F(Whttpctl, CertificateTrust) {
    start();
    // Without --insecure or --cacert the device's self-signed certificate is
    // not trusted.
    Outcome r = runCtl(home, {"--url", url(), "login", "admin", "1234abcd"});
    EXPECT_EQ(3, r.status);
    EXPECT_NE(std::string::npos, r.err.find("certificate")) << r.err;
    EXPECT_EQ(1u, e2e::countOf(r.err, "\n"));
    // Pinned: the device's own certificate.
    std::string cert = root.path("/data/CA/newreq.crt");
    r = runCtl(home, {"--url", url(), "--cacert", cert, "login", "admin", "1234abcd"});
    EXPECT_EQ(0, r.status) << r.err;
    r = runCtl(home, {"--url", url(), "--cacert", cert, "get", "Device.DeviceInfo."});
    EXPECT_EQ(0, r.status) << r.err;
    // Another certificate for the same name and address pinned: refused.
    std::string other = home + "/other.crt";
    ASSERT_EQ(0, system(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
                         "-nodes -days 1 -subj /CN=localhost -addext "
                         "subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout " +
                         home + "/other.key -out " + other + " 2>/dev/null")
                            .c_str()));
    r = runCtl(home, {"--url", url(), "--cacert", other, "get", "Device.DeviceInfo."});
    EXPECT_EQ(3, r.status) << r.err;
    // The pin holds at any address, though the certificate names only
    // localhost: a device is reached at its LAN address (here another
    // loopback address; the daemon listens on all of them).
    std::string lan = "https://127.0.0.2:" + std::to_string(port);
    r = runCtl(home, {"--url", lan, "--cacert", cert, "login", "admin", "1234abcd"});
    EXPECT_EQ(0, r.status) << r.err;
    r = runCtl(home, {"--url", lan, "--cacert", cert, "get", "Device.DeviceInfo."});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("\"NX5150\"", member(member(r.out, "Object"), "ModelName"));
    // There, too, another certificate is refused; and without a pin the name
    // is checked as ever.
    r = runCtl(home, {"--url", lan, "--cacert", other, "login", "admin", "1234abcd"});
    EXPECT_EQ(3, r.status) << r.err;
    r = runCtl(home, {"--url", lan, "login", "admin", "1234abcd"});
    EXPECT_EQ(3, r.status) << r.err;
    EXPECT_EQ(2, runCtl(home, {"--url", url(), "--insecure", "--cacert", cert, "methods"}).status);
    EXPECT_EQ(2, runCtl(home, {"--url", url(), "--cacert", home + "/none", "methods"}).status);
}

TEST_F(Whttpctl, BadInputGivesOneLineAndAStatus) {
    start();
    login();
    std::string key = stateEntry("key");
    struct Case {
        std::vector<std::string> args;
        int status;
        const char* error;
    };
    const Case cases[] = {
        {{"get", "DeviceInfo."}, 2, "a path begins with \"Device.\""},
        {{"get", "Device.DeviceInfo.?first_level_only=false"}, 2, "letters, digits"},
        {{"del", "Device.NAT.PortMapping.1.&x=1"}, 2, "letters, digits"},
        {{"get", "Device.../../etc/passwd"}, 2, "letters, digits"},
        {{"set", "Device.NAT.PortMapping.1.", "{\"Description\":"}, 2, "invalid JSON"},
        {{"set", "Device.NAT.PortMapping.1.", "{} trailing"}, 2, "invalid JSON"},
        {{"set", "Device.NAT.PortMapping.1.", "[1]"}, 2, "invalid JSON"},
        {{"add", "Device.NAT.PortMapping.", "'x'"}, 2, "invalid JSON"},
        {{"set", "Device.NAT.PortMapping.1."}, 2, "wrong number of arguments"},
        {{"frobnicate"}, 2, "unknown command frobnicate"},
        {{"get", "Device.", "--bogus"}, 2, "unknown option --bogus"},
        {{"get", "Device.", "--device", "x"}, 2, "--device is not an option of get"},
        {{"--url", "http://127.0.0.1:1", "methods"}, 2, "--url takes https://"},
        {{"--url", "https://a@127.0.0.1:1", "methods"}, 2, "--url takes https://"},
        {{"--timeout", "0", "methods"}, 2, "--timeout takes seconds"},
        // Refused by the device: its "oper_status" on stderr.
        {{"get", "Device.DeviceInfo.ModelName"}, 1, "whttpctl: Invalid object (HTTP 200)"},
        {{"del", "Device.NAT.PortMapping.9."}, 1, "whttpctl: "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + (c.args.size() > 1 ? c.args[1] : ""));
        Outcome r = ctl(c.args);
        EXPECT_EQ(c.status, r.status);
        EXPECT_NE(std::string::npos, r.err.find(c.error)) << r.err;
        EXPECT_EQ(1u, e2e::countOf(r.err, "\n")) << r.err;
        EXPECT_EQ(0u, r.err.find("whttpctl: ")) << r.err;
        if (c.status == 2) {
            EXPECT_EQ("", r.out);
        }
    }
    // Nothing refused locally cost a session key.
    EXPECT_EQ(0, ctl({"set", "Device.NAT.PortMapping.1.", R"({"Description":"ok"})"}).status);
}

TEST_F(Whttpctl, UnreachableOrSilentDevicesEndInBoundedTime) {
    start();
    // Nothing listens: refused at once.
    int closed = e2e::freePort();
    Outcome r = runCtl(home, {"--url", "https://127.0.0.1:" + std::to_string(closed), "--insecure",
                              "login", "admin", "x"});
    EXPECT_EQ(3, r.status);
    EXPECT_NE(std::string::npos, r.err.find("https://127.0.0.1:" + std::to_string(closed)));
    EXPECT_EQ(1u, e2e::countOf(r.err, "\n"));
    // A listener that never speaks TLS: the time-out ends the wait.
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a));
    ASSERT_EQ(0, listen(fd, 4));
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    std::string silent = "https://127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    r = runCtl(home, {"--url", silent, "--insecure", "--timeout", "1", "login", "admin", "x"}, "",
               30000);
    EXPECT_EQ(3, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("time")) << r.err;
    close(fd);
    // The URL from the environment, when no --url is given.
    setenv("WHTTPCTL_URL", url().c_str(), 1);
    r = runCtl(home, {"--insecure", "login", "admin", "1234abcd"});
    unsetenv("WHTTPCTL_URL");
    EXPECT_EQ(0, r.status) << r.err;
}

TEST_F(Whttpctl, StateFilesThatCannotBeTrustedAreRefused) {
    start();
    login();
    std::string state = statePath();
    std::string good = slurp(state);
    auto refused = [&](const char* what) {
        SCOPED_TRACE(what);
        Outcome r = ctl({"get", "Device.DeviceInfo."});
        EXPECT_EQ(4, r.status);
        EXPECT_EQ("", r.out);
        EXPECT_EQ(1u, e2e::countOf(r.err, "\n")) << r.err;
        EXPECT_NE(std::string::npos, r.err.find("refusing")) << r.err;
        // A login does not write through it either.
        EXPECT_EQ(4, ctl({"login", "admin", "1234abcd"}).status);
    };
    // Readable by others.
    chmod(state.c_str(), 0644);
    refused("mode 0644");
    EXPECT_EQ(0644u, modeOf(state));
    chmod(state.c_str(), 0620);
    refused("group-writable");
    chmod(state.c_str(), 0600);

    // A symbolic link in its place, to a file of the victim's: neither read
    // nor written.
    std::string victim = home + "/victim";
    spit(victim, good);
    chmod(victim.c_str(), 0600);
    unlink(state.c_str());
    ASSERT_EQ(0, symlink(victim.c_str(), state.c_str()));
    refused("symbolic link");
    EXPECT_EQ(good, slurp(victim));
    unlink(state.c_str());

    // A FIFO: refused, not waited on.
    ASSERT_EQ(0, mkfifo(state.c_str(), 0600));
    refused("fifo");
    unlink(state.c_str());

    // Another user's file (as root here, the test can make one).
    spit(state, good);
    chmod(state.c_str(), 0600);
    if (geteuid() == 0) {
        ASSERT_EQ(0, chown(state.c_str(), 65534, 65534));
        refused("owned by another user");
        ASSERT_EQ(0, chown(state.c_str(), 0, 0));
    }
    // A directory others may write to: they could swap the file.
    chmod((home + "/state").c_str(), 0777);
    refused("directory writable by others");
    chmod((home + "/state").c_str(), 0700);

    // Damaged, or a cookie that would add a header: a clear error.
    spit(state, "{\"https://x\":");
    Outcome r = ctl({"get", "Device.DeviceInfo."});
    EXPECT_EQ(4, r.status);
    EXPECT_NE(std::string::npos, r.err.find("damaged")) << r.err;
    spit(state, "{\"" + url() + "\":{\"user\":\"admin\",\"cookie\":\"x\\r\\nX-A: 1\",\"key\":1}}");
    r = ctl({"get", "Device.DeviceInfo."});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("not logged in")) << r.err;

    // Sound again: works, and the rewritten file is private.
    spit(state, good);
    EXPECT_EQ(0, ctl({"set", "Device.NAT.PortMapping.1.", R"({"Description":"again"})"}).status);
    EXPECT_EQ(0600u, modeOf(state));
}

namespace {

// A UDP socket bound to `address` on a free port.
int udpOn(const char* address, uint16_t& port) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, address, &a.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
        return -1;
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    return fd;
}

// A discovery answer datagram carrying `json`.
std::string answerDatagram(const std::string& json) {
    std::string d = {1, 2, static_cast<char>(json.size() >> 8), static_cast<char>(json.size())};
    return d + json;
}

}  // namespace

TEST_F(Whttpctl, DiscoverTakesOneAnswerFromTheAddressAskedOnly) {
    // A stand-in device on 127.0.0.1, and a stranger on 127.0.0.5 who answers
    // too; the device answers twice.
    uint16_t devicePort = 0, strangerPort = 0;
    int device = udpOn("127.0.0.1", devicePort), stranger = udpOn("127.0.0.5", strangerPort);
    ASSERT_GE(device, 0);
    ASSERT_GE(stranger, 0);
    Outcome r;
    std::thread run([&] {
        r = runCtl(
            home, {"discover", "127.0.0.1", "--port", std::to_string(devicePort), "--wait", "1500"},
            "", 30000);
    });
    pollfd p{device, POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, 30000));
    char buf[512];
    sockaddr_in client{};
    socklen_t len = sizeof client;
    ASSERT_GT(recvfrom(device, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&client), &len), 0);
    auto send = [&](int fd, const std::string& json) {
        std::string d = answerDatagram(json);
        sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&client), len);
    };
    send(stranger, R"({"ModelName":"stranger"})");
    send(device, R"({"ModelName":"first"})");
    // A flood, within what the client's receive buffer holds (a datagram
    // dropped there would prove nothing).
    for (int i = 0; i < 50; ++i)
        send(stranger, R"({"ModelName":"flood"})");
    send(device, R"({"ModelName":"latest"})");
    run.join();
    close(device);
    close(stranger);
    ASSERT_EQ(0, r.status) << r.err;
    JsonPtr list(json_tokener_parse(r.out.c_str()));
    ASSERT_TRUE(list && json_object_is_type(list.get(), json_type_array)) << r.out;
    ASSERT_EQ(1u, json_object_array_length(list.get())) << r.out;
    std::string one = json_object_to_json_string(json_object_array_get_idx(list.get(), 0));
    EXPECT_EQ("\"latest\"", member(one, "ModelName"));
    EXPECT_EQ("\"127.0.0.1\"", member(one, "Address"));
}

TEST_F(Whttpctl, CharactersATerminalActsOnArePrintedEscaped) {
    start();
    login();
    // CSI (U+009B), right-to-left override (U+202E), first strong isolate
    // (U+2068), left-to-right mark (U+200E) in a value the device keeps.
    const std::string value = "a\u009b31mb\u202ec\u2068d\u200ee";
    JsonPtr body(json_object_new_object());
    json_object_object_add(body.get(), "Description", json_object_new_string(value.c_str()));
    Outcome r = ctl({"set", "Device.NAT.PortMapping.1.",
                     json_object_to_json_string_ext(body.get(), JSON_C_TO_STRING_PLAIN)});
    ASSERT_EQ(0, r.status) << r.err;
    for (const char* flag : {"--subtree", "--compact"}) {
        SCOPED_TRACE(flag);
        r = ctl({"get", "Device.NAT.PortMapping.1.", flag});
        ASSERT_EQ(0, r.status) << r.err;
        for (const char* raw : {"\u009b", "\u202e", "\u2068", "\u200e"})
            EXPECT_EQ(std::string::npos, r.out.find(raw)) << r.out;
        for (const char* escaped : {"\\u009b", "\\u202e", "\\u2068", "\\u200e"})
            EXPECT_NE(std::string::npos, r.out.find(escaped)) << r.out;
        // Still the same JSON: the value reads back unchanged.
        JsonPtr doc(json_tokener_parse(r.out.c_str()));
        json_object *object = nullptr, *description = nullptr;
        ASSERT_TRUE(doc && json_object_object_get_ex(doc.get(), "Object", &object));
        if (json_object_is_type(object, json_type_array))
            object = json_object_array_get_idx(object, 0);
        ASSERT_TRUE(json_object_object_get_ex(object, "Description", &description)) << r.out;
        EXPECT_EQ(value, json_object_get_string(description));
    }
    // The one-line error shows none of them either (nor bytes that are no
    // UTF-8).
    r = ctl({"get", "Device.\u009b2J\u202eX.\xc2"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("whttpctl: a path holds letters, digits, '.', '_' and '-' only: Device.?2J?X.?\n",
              r.err);
}

// watch prints each event once, follows a dropped connection from the last
// event it saw, and ends with status 0 when the session ends.
TEST_F(Whttpctl, WatchResumesAfterADroppedConnectionAndEndsWithTheSession) {
    start();
    e2e::Relay relay(port);
    std::string viaRelay = "https://127.0.0.1:" + std::to_string(relay.port());
    auto ctlVia = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"--url", viaRelay, "--insecure", "--compact"});
        return runCtl(home, args);
    };
    ASSERT_EQ(0, ctlVia({"login", "admin", "1234abcd"}).status);
    Outcome watch;
    int watchRun = nextRun() + 1;  // the run number the watch will get
    std::thread watcher([&] { watch = ctlVia({"watch", "Device.WiFi.SSID."}); });
    // The device's changes, made by another client; each waits until the
    // watch has shown it.
    auto shown = [&](const std::string& text, int tries = 1000) {
        for (int i = 0; i < tries; ++i) {
            if (slurp(runOutput(home, watchRun)).find(text) != std::string::npos)
                return true;
            e2e::sleepMs(20);
        }
        return false;
    };
    // Until the stream is open, changes go unseen: change until one shows.
    bool open = false;
    for (int i = 0; i < 100 && !open; ++i) {
        ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.1.",
                                   "{\"SSID\":\"first" + std::to_string(i) + "\"}"}));
        open = shown("\"first" + std::to_string(i) + "\"", 25);
    }
    ASSERT_TRUE(open);
    relay.dropAll();
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.2.", "{\"SSID\":\"while-away\"}"}));
    EXPECT_TRUE(shown("while-away"));
    Outcome logout = ctlVia({"logout"});
    EXPECT_EQ(0, logout.status) << logout.err;
    watcher.join();
    EXPECT_EQ(0, watch.status) << watch.err;
    EXPECT_EQ(1u, e2e::countOf(watch.out, "while-away")) << watch.out;
    EXPECT_NE(std::string::npos, watch.out.find(R"("event":"end","data":{"reason":"logout"})"))
        << watch.out;
    EXPECT_NE(std::string::npos, watch.err.find("the event stream broke")) << watch.err;
    // A path that is no object of the device: refused, not watched.
    ASSERT_EQ(0, ctl({"login", "admin", "1234abcd"}).status);
    Outcome bad = ctl({"watch", "Device.NoSuchThing."});
    EXPECT_EQ(1, bad.status);
    EXPECT_NE(std::string::npos, bad.err.find("Invalid object")) << bad.err;
    EXPECT_EQ(2, ctl({"watch", "Device.WiFi"}).status);
}
