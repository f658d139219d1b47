// Reboot, mesh reboot and mesh reset through the real daemon: the answer
// before the action, the refused methods and keys, each mesh case (one agent,
// this device, every agent of an enabled controller, an agent, a disabled
// mesh), and values with shell metacharacters that must reach the mesh tool
// as text and run nothing.  The virtual router journals what it is asked and
// never reboots or signals anything.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json-c/json.h>

#include <cstring>
#include <string>
#include <vector>

#include "client.h"
#include "fixture.h"
#include "harness.h"

using namespace e2e;

namespace {

class Actions : public e2e::DaemonTest {
  protected:
    Reply act(const std::string& method, const std::string& uri) {
        return Client(port).request(method, e2e::withKey(uri, s), "", &s);
    }
    std::string journal() {
        std::string out;
        root.wcfgctl({"requests"}, &out);
        return out;
    }
    void clearJournal() { ASSERT_EQ(0, root.wcfgctl({"requests", "--clear"})); }
    // The journal once it holds `count` times `text` (the device acts after
    // its answer), or as it is after ten seconds.
    std::string journalWith(const std::string& text, size_t count = 1) {
        std::string j;
        for (int i = 0; i < 500; ++i) {
            j = journal();
            if (e2e::countOf(j, text) >= count)
                break;
            e2e::sleepMs(20);
        }
        return j;
    }
    // The agent the default topology lists (the extender's AL MAC).
    const std::string kAgent = "02:10:18:3A:6D:00";
};

// The agents that the journal shows told mesh tool `code`, each argument as
// the tool received it.
std::vector<std::string> agentsTold(const std::string& journal, const std::string& code) {
    std::vector<std::string> out;
    size_t at = 0;
    for (size_t end; (end = journal.find('\n', at)) != std::string::npos; at = end + 1) {
        json_object* line = json_tokener_parse(journal.substr(at, end - at).c_str());
        json_object *tool = nullptr, *args = nullptr;
        if (json_object_object_get_ex(line, "tool", &tool) &&
            !strcmp(json_object_get_string(tool), "vx1905App") &&
            json_object_object_get_ex(line, "args", &args) && json_object_array_length(args) == 2 &&
            code == json_object_get_string(json_object_array_get_idx(args, 0))) {
            json_object* agent = json_object_array_get_idx(args, 1);
            out.emplace_back(json_object_get_string(agent),
                             static_cast<size_t>(json_object_get_string_len(agent)));
        }
        json_object_put(line);
    }
    return out;
}

// Percent-encodes a query value.
std::string encoded(const std::string& v) {
    std::string out;
    char buf[4];
    for (unsigned char c : v) {
        if (isalnum(c) || c == '-' || c == '_' || c == '.') {
            out += static_cast<char>(c);
        } else {
            snprintf(buf, sizeof buf, "%%%02X", c);
            out += buf;
        }
    }
    return out;
}

}  // namespace

TEST_F(Actions, RebootAnswersFirstAndOnlyForAKeyedPostOrPut) {
    start();
    Reply r = act("POST", "Reboot");
    EXPECT_EQ(200, r.status);
    EXPECT_EQ("{ \"oper_status\": \"Success\" }", r.body);
    EXPECT_NE(std::string::npos, journal().find("\"req\":\"reboot\""));
    EXPECT_EQ("Success", operStatus(act("PUT", "Reboot")));
    EXPECT_EQ(2u, e2e::countOf(journalWith("\"req\":\"reboot\"", 2), "\"req\":\"reboot\""));
    clearJournal();
    for (const char* method : {"GET", "DELETE"}) {
        r = act(method, "Reboot");
        EXPECT_EQ(403, r.status) << method;
        EXPECT_EQ("Invalid SessionKey", operStatus(r));
    }
    r = Client(port).request("POST", "MeshReboot", "", &s);  // no key at all
    EXPECT_EQ(403, r.status);
    r = Client(port).request("POST", "MeshResetAllSetting?sessionkey=1", "", &s);
    EXPECT_EQ(403, r.status);
    EXPECT_EQ("", journal());
}

TEST_F(Actions, MeshRebootOfThisDeviceOneAgentAndTheWholeMesh) {
    // A harmless process stands for the voice application: it must live on.
    pid_t voice = fork();
    if (voice == 0) {
        execl("/bin/sleep", "sleep", "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    std::string pidText = std::to_string(voice);
    FILE* f = fopen(root.path("/var/run/voiceApp.pid").c_str(), "w");
    ASSERT_NE(nullptr, f);
    fputs(pidText.c_str(), f);
    fclose(f);
    start();

    // This device only: the stop sequence, then the reboot; no agent.
    EXPECT_EQ("Success", operStatus(act("POST", "MeshReboot?device=controller")));
    std::string j = journalWith("\"req\":\"reboot\"");
    EXPECT_NE(std::string::npos, j.find("\"tool\":\"kill\",\"args\":[\"-15\",\"" + pidText + "\"]"))
        << j;
    EXPECT_LT(j.find("\"killall\",\"args\":[\"-15\",\"dhcp6c\"]"),
              j.find("\"killall\",\"args\":[\"-9\",\"pppd\"]"));
    EXPECT_LT(j.find("\"-9\",\"pppd\""), j.find("\"req\":\"reboot\""));
    EXPECT_EQ(std::string::npos, j.find("vx1905App"));
    EXPECT_EQ(0, kill(voice, 0)) << "the voice application was signalled";

    // One agent: the mesh tool, and this device stays up.
    clearJournal();
    EXPECT_EQ("Success", operStatus(act("POST", "MeshReboot?device=AA")));
    j = journalWith("vx1905App");
    EXPECT_NE(std::string::npos, j.find("\"vx1905App\",\"args\":[\"2\",\"AA\"]")) << j;
    EXPECT_EQ(std::string::npos, j.find("\"req\":\"reboot\""));

    // The whole mesh from its enabled controller: every agent, then this one.
    clearJournal();
    EXPECT_EQ("Success", operStatus(act("POST", "MeshReboot")));
    j = journalWith("\"req\":\"reboot\"");
    EXPECT_NE(std::string::npos, j.find("\"vx1905App\",\"args\":[\"2\",\"" + kAgent + "\"]")) << j;
    EXPECT_LT(j.find("vx1905App"), j.find("\"req\":\"reboot\""));
    EXPECT_FALSE(root.exists("/tmp/tmp_agent_list"));
    kill(voice, SIGKILL);
    waitpid(voice, nullptr, 0);
}

TEST_F(Actions, MeshResetAsControllerAgentAndWithTheMeshOff) {
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.NAT.PortMapping.1.", R"({"Description":"mine"})"}));
    start();
    EXPECT_EQ("Success", operStatus(act("POST", "MeshResetAllSetting")));
    std::string j = journalWith("\"req\":\"reset\"");
    EXPECT_EQ(1u, e2e::countOf(j, "\"vx1905App\",\"args\":[\"10\",\"" + kAgent + "\"]")) << j;
    EXPECT_LT(j.find("vx1905App"), j.find("\"req\":\"reset\""));
    std::string out;
    root.wcfgctl({"get", "Device.NAT.PortMapping.1."}, &out);
    EXPECT_NE(std::string::npos, out.find("\"Description\":\"web\"")) << out;

    // An agent, or a disabled mesh: no agent is told, this device acts.
    for (const char* mesh : {R"({"Role":2})", R"({"Role":1,"Enable":false})"}) {
        ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_EasyMesh.", mesh}));
        clearJournal();
        EXPECT_EQ("Success", operStatus(act("POST", "MeshResetAllSetting")));
        j = journalWith("\"req\":\"reset\"");
        EXPECT_EQ(std::string::npos, j.find("vx1905App")) << mesh;
        EXPECT_NE(std::string::npos, j.find("\"req\":\"reset\"")) << mesh;
        root.wcfgctl({"set", "Device.X_OLVEX_EasyMesh.", R"({"Role":1,"Enable":true})"});
    }
}

TEST_F(Actions, AnAgentNameReachesTheToolUnchangedAsOneArgument) {
    start();
    std::string marker = root.path("/tmp/x");
    // Shell metacharacters, line ends and blanks anywhere: each value is one
    // argument of the mesh tool, byte for byte, and nothing runs.
    const std::string values[] = {"AA;touch " + marker,
                                  "`touch " + marker + "`",
                                  "$(touch " + marker + ")",
                                  "AA' ; touch '" + marker,
                                  "AA\" | touch \"" + marker,
                                  "AA\ntouch " + marker,
                                  "AA && touch " + marker + " &",
                                  "AA\n",
                                  "\nAA",
                                  " AA\t",
                                  "AA\r\n",
                                  ""};
    for (const std::string& v : values) {
        clearJournal();
        EXPECT_EQ("Success", operStatus(act("POST", "MeshReboot?device=" + encoded(v))));
        EXPECT_EQ("Success", operStatus(act("POST", "MeshResetAllSetting?device=" + encoded(v))));
        std::string j = journalWith("vx1905App", 2);
        EXPECT_EQ(std::vector<std::string>{v}, agentsTold(j, "2")) << j;
        EXPECT_EQ(std::vector<std::string>{v}, agentsTold(j, "10")) << j;
        EXPECT_EQ(std::string::npos, j.find("\"req\":")) << "this device acted for " << v;
    }
    e2e::sleepMs(100);
    EXPECT_FALSE(root.exists("/tmp/x")) << "a value ran as a command";

    // A mesh node whose name the topology tool prints with metacharacters:
    // its line reaches the mesh tool as text too.
    std::string evil = "`id>" + marker + "`";
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(root.path("/tmp/devscout.db").c_str(), &db));
    std::string sql =
        "INSERT INTO Device(DevType, DevName, ALMac) VALUES('L2Device', 'evil', '" + evil + "');";
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr));
    sqlite3_close(db);
    clearJournal();
    EXPECT_EQ("Success", operStatus(act("POST", "MeshReboot")));
    std::string j = journalWith("\"req\":\"reboot\"");
    EXPECT_NE(std::string::npos, j.find("id>")) << j;
    e2e::sleepMs(100);
    EXPECT_FALSE(root.exists("/tmp/x")) << "a topology line ran as a command";
}
