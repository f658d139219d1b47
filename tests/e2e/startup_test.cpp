// Start-up, certificates, options, pid files, signals, the bus notice and the
// store across restarts, with the real daemon in fresh device roots.
#include <gtest/gtest.h>
#include <signal.h>
#include <curl/curl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "harness.h"

using namespace e2e;

namespace {

std::string url(int port, const std::string& path, const std::string& host = "127.0.0.1") {
    return "https://" + host + ":" + std::to_string(port) + path;
}

std::string run(const std::string& cmd) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p)
        return out;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    pclose(p);
    return out;
}

bool pairMatches(const DeviceRoot& root) {
    std::string a = run("openssl x509 -noout -modulus -in " + root.path("/data/CA/newreq.crt"));
    std::string b =
        run("openssl rsa -noout -modulus -in " + root.path("/data/CA/newreq.key") + " 2>/dev/null");
    return !a.empty() && a == b;
}

void makePair(const std::string& key, const std::string& cert) {
    std::string cmd = "openssl req -newkey rsa:2048 -nodes -keyout " + key +
                      " -x509 -days 1 -out " + cert + " -subj /CN=test 2>/dev/null";
    ASSERT_EQ(0, system(cmd.c_str()));
}

// The status of a GET that verifies the server against `caFile`, -1 when
// the connection or the verification fails.
long verifiedStatus(const std::string& u, const std::string& caFile) {
    CURL* c = curl_easy_init();
    if (!c)
        return -1;
    std::string sink;
    curl_easy_setopt(c, CURLOPT_URL, u.c_str());
    curl_easy_setopt(c, CURLOPT_CAINFO, caFile.c_str());
    curl_easy_setopt(c, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(
        c, CURLOPT_WRITEFUNCTION, +[](char*, size_t n, size_t m, void*) { return n * m; });
    long status = -1;
    if (curl_easy_perform(c) == CURLE_OK)
        curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(c);
    return status;
}

}  // namespace

// A device whose provisioning left no pair: the daemon waits for one, then
// makes its own.
TEST(Startup, NoPairWaitsThenGeneratesOneServesHttpsAndStopsCleanly) {
    DeviceRoot root;
    ASSERT_FALSE(root.dir().empty());
    ASSERT_EQ(0, system(("rm -rf " + root.path("/data/CA")).c_str()));
    int port = e2e::freePort();
    Daemon d;
    ASSERT_TRUE(d.start(
        root, {"-p", "80", "-s", std::to_string(port), "-P", root.path("/var/run/extra.pid")}));
    ASSERT_TRUE(d.waitReady(port)) << d.out() << d.err();

    // No pair and no companion script: five waits, then a pair of its own.
    std::string out = d.out();
    EXPECT_NE(std::string::npos,
              out.find("cert file not ready, and whttpd doesn's exist... count=5/5"));
    EXPECT_EQ(std::string::npos, out.find("re-generate CA"));
    EXPECT_NE(std::string::npos,
              out.find("Initial http with port(" + std::to_string(port) + "), SSL enable."));
    EXPECT_TRUE(pairMatches(root));
    EXPECT_TRUE(root.exists("/var/public_key.pem"));

    // Pid files: "%u\n" in the fixed one, "%d" in the -P one.
    EXPECT_EQ(std::to_string(d.pid()) + "\n", root.read("/var/run/rest_api_server.pid"));
    EXPECT_EQ(std::to_string(d.pid()), root.read("/var/run/extra.pid"));

    // HTTPS on IPv4 and IPv6 (dual stack); without a session cookie the login
    // check answers "Invalid Session ID".
    for (const char* host : {"127.0.0.1", "[::1]"}) {
        e2e::Reply r = e2e::https("GET", url(port, "/api/v1/MethodList", host));
        ASSERT_TRUE(r.ok) << host;
        EXPECT_EQ(401, r.status);
        EXPECT_EQ("{ \"oper_status\": \"Invalid Session ID\" }", r.body);
        EXPECT_NE(std::string::npos, r.headers.find("Content-Type: application/json"));
    }

    EXPECT_EQ(0, d.stop(SIGTERM));
    EXPECT_NE(std::string::npos, d.out().find("Receive SIGNAL(" + std::to_string(SIGTERM) + ")."));
    EXPECT_NE(std::string::npos, d.out().find("whttpd_rest daemon exit....\n"));
    // Neither pid file is removed.
    EXPECT_TRUE(root.exists("/var/run/rest_api_server.pid"));

    // A second start finds the matching pair and does not wait.
    std::string cert = root.read("/data/CA/newreq.crt");
    Daemon again;
    ASSERT_TRUE(again.start(root, {"-s", std::to_string(port)}));
    ASSERT_TRUE(again.waitReady(port)) << again.out();
    EXPECT_EQ(std::string::npos, again.out().find("cert file not ready"));
    EXPECT_EQ(cert, root.read("/data/CA/newreq.crt"));
    EXPECT_EQ(0, again.stop(SIGQUIT));
}

// Provisioning made the pair: the daemon serves at once, and a client that
// pins the device's certificate verifies it under the device's own names.
TEST(Startup, ProvisionedPairIsServedAtOnceAndVerifies) {
    DeviceRoot root;
    ASSERT_TRUE(pairMatches(root));
    struct stat st {};
    ASSERT_EQ(0, stat(root.path("/data/CA/newreq.key").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    std::string cert = root.read("/data/CA/newreq.crt");

    // A second init keeps the pair a client may have pinned.
    ASSERT_EQ(0, root.wcfgctl({"init"}));
    EXPECT_EQ(cert, root.read("/data/CA/newreq.crt"));

    int port = e2e::freePort();
    Daemon d;
    ASSERT_TRUE(d.start(root, {"-s", std::to_string(port)}));
    ASSERT_TRUE(d.waitReady(port)) << d.out();
    EXPECT_EQ(std::string::npos, d.out().find("cert file not ready"));
    EXPECT_EQ(std::string::npos, d.out().find("re-generate CA"));
    EXPECT_EQ(cert, root.read("/data/CA/newreq.crt"));
    for (const char* host : {"localhost", "127.0.0.1", "[::1]"}) {
        EXPECT_EQ(401, verifiedStatus(url(port, "/api/v1/MethodList", host),
                                      root.path("/data/CA/newreq.crt")))
            << host;
    }
    // Another device's certificate does not verify it.
    makePair(root.path("/tmp/other.key"), root.path("/tmp/other.crt"));
    EXPECT_EQ(-1, verifiedStatus(url(port, "/api/v1/MethodList", "localhost"),
                                 root.path("/tmp/other.crt")));
    EXPECT_EQ(0, d.stop());
}

// The daemon runs once, as it was started: it never starts itself again to
// change its environment (the allocator's setting comes from the service
// scripts), and its name stays the program's.
TEST(Startup, TheDaemonRunsAsItWasStartedWithTheEnvironmentItWasGiven) {
    DeviceRoot root;
    auto environ = [](pid_t pid) {
        std::ifstream f("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
        std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
        std::replace(text.begin(), text.end(), '\0', '\n');
        return "\n" + text;
    };
    for (const char* tunables : {"", "glibc.malloc.tcache_count=2"}) {
        int port = e2e::freePort();
        Daemon d;
        if (*tunables)
            d.setEnv("GLIBC_TUNABLES", tunables);
        else
            d.unsetEnv("GLIBC_TUNABLES");
        ASSERT_TRUE(d.start(root, {"-s", std::to_string(port)}));
        ASSERT_TRUE(d.waitReady(port)) << d.out();
        std::string env = environ(d.pid());
        if (*tunables)
            EXPECT_NE(std::string::npos,
                      env.find("\nGLIBC_TUNABLES=" + std::string(tunables) + "\n"));
        else
            EXPECT_EQ(std::string::npos, env.find("\nGLIBC_TUNABLES=")) << env;
        std::ifstream comm("/proc/" + std::to_string(d.pid()) + "/comm");
        std::string name;
        std::getline(comm, name);
        EXPECT_EQ("whttpd_rest", name);
        EXPECT_EQ(0, d.stop());
    }
}

TEST(Startup, MismatchedPairIsRegenerated) {
    DeviceRoot root;
    ASSERT_EQ(0, system(("mkdir -p " + root.path("/data/CA")).c_str()));
    makePair(root.path("/data/CA/newreq.key"), root.path("/tmp/other.crt"));
    makePair(root.path("/tmp/other.key"), root.path("/data/CA/newreq.crt"));
    ASSERT_FALSE(pairMatches(root));
    int port = e2e::freePort();
    Daemon d;
    ASSERT_TRUE(d.start(root, {"-s", std::to_string(port)}));
    ASSERT_TRUE(d.waitReady(port)) << d.out();
    EXPECT_NE(std::string::npos, d.out().find("count=5/5"));
    EXPECT_TRUE(pairMatches(root));
    EXPECT_EQ(0, d.stop());
}

TEST(Startup, OptionsAndMissingFiles) {
    DeviceRoot root;
    {
        // -v takes an argument but has no action: usage, status 1.
        Daemon d;
        ASSERT_TRUE(d.start(root, {"-v", "x"}));
        EXPECT_EQ(1, d.wait(20000));
        EXPECT_NE(std::string::npos, d.out().find("Usage: "));
        EXPECT_NE(std::string::npos, d.out().find(" -s         support https\n"));
    }
    {
        // No schema: start-up gives up with -1.
        ASSERT_EQ(0, rename(root.path("/etc/wcfg_REST_API_schema.json").c_str(),
                            root.path("/etc/schema.saved").c_str()));
        Daemon d;
        ASSERT_TRUE(d.start(root, {"-s", std::to_string(e2e::freePort())}));
        EXPECT_EQ(255, d.wait(30000));
        ASSERT_EQ(0, rename(root.path("/etc/schema.saved").c_str(),
                            root.path("/etc/wcfg_REST_API_schema.json").c_str()));
    }
    {
        // A schema that is not JSON is the same failure.
        ASSERT_EQ(0, system(("cp " + root.path("/etc/wcfg_REST_API_schema.json") + " " +
                             root.path("/etc/schema.saved"))
                                .c_str()));
        FILE* f = fopen(root.path("/etc/wcfg_REST_API_schema.json").c_str(), "w");
        fputs("{\"Device\": ", f);
        fclose(f);
        Daemon d;
        ASSERT_TRUE(d.start(root, {"-s", std::to_string(e2e::freePort())}));
        EXPECT_EQ(255, d.wait(30000));
        ASSERT_EQ(0, rename(root.path("/etc/schema.saved").c_str(),
                            root.path("/etc/wcfg_REST_API_schema.json").c_str()));
    }
    {
        // Without the OpenSSL configuration there is no wait and no
        // certificate: the certificate cannot be opened, -1.
        ASSERT_EQ(0, unlink(root.path("/etc/config/openssl.cnf").c_str()));
        ASSERT_EQ(0, system(("rm -rf " + root.path("/data/CA")).c_str()));
        Daemon d;
        ASSERT_TRUE(d.start(root, {"-s", std::to_string(e2e::freePort())}));
        EXPECT_EQ(255, d.wait(10000));
        EXPECT_EQ(std::string::npos, d.out().find("cert file not ready"));
    }
}

TEST(Startup, BusNoticeSignalsAndStoreAcrossRestart) {
    DeviceRoot root;
    int port = e2e::freePort();
    Daemon d;
    ASSERT_TRUE(d.start(root, {"-s", std::to_string(port)}));
    ASSERT_TRUE(d.waitReady(port)) << d.out();

    // The notice sent by wcfgctl reaches the receive loop.
    ASSERT_EQ(0, root.wcfgctl({"notify"}));
    EXPECT_TRUE(d.waitForOutput("data model change, update login timer."));

    // An applied write from wcfgctl while the daemon runs notifies it too.
    ASSERT_EQ(
        0, root.wcfgctl({"set", "Device.X_OLVEX_LoginCfg.", "{\"MaximumLoginAccountNumber\": 2}"}));
    std::string added;
    ASSERT_EQ(0, root.wcfgctl({"add", "Device.NAT.PortMapping.",
                               "{\"Enable\": true, \"ExternalPort\": 2222, \"InternalPort\": 22, "
                               "\"InternalClient\": \"192.168.1.33\", \"Description\": \"ssh\"}"},
                              &added));
    EXPECT_EQ("Device.NAT.PortMapping.2.\n", added);

    // SIGUSR1 prints the session table; SIGINT is only logged.
    d.signal(SIGUSR1);
    // The number is the CPU's own: SIGUSR1 is 10 on x86 and ARM, 16 on MIPS.
    EXPECT_TRUE(d.waitForOutput("Receive SIGNAL(" + std::to_string(SIGUSR1) + ")."));
    EXPECT_TRUE(d.waitForOutput("========================================"));
    d.signal(SIGINT);
    EXPECT_TRUE(d.waitForOutput("Receive SIGNAL(" + std::to_string(SIGINT) + ")."));
    EXPECT_TRUE(e2e::https("GET", url(port, "/api/v1/MethodList")).ok);
    EXPECT_EQ(0, d.stop());

    // What wcfgctl wrote survives the restart.
    Daemon again;
    ASSERT_TRUE(again.start(root, {"-s", std::to_string(port)}));
    ASSERT_TRUE(again.waitReady(port));
    std::string out;
    ASSERT_EQ(0, root.wcfgctl({"get", "RDM_OID_VX_LOG_CFG"}, &out));
    EXPECT_NE(std::string::npos, out.find("\"MaximumLoginAccountNumber\":2"));
    ASSERT_EQ(0, root.wcfgctl({"get", "Device.NAT.PortMapping.2."}, &out));
    EXPECT_NE(std::string::npos, out.find("\"ExternalPort\":2222"));
    EXPECT_NE(std::string::npos, out.find("\"Description\":\"ssh\""));
    EXPECT_EQ(0, again.stop());
}
