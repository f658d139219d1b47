// The web console's files as the daemon serves them: the page and its
// files with their headers, caching and methods; every way out of the
// console's folder an attacker would try; the API's own URIs untouched; and
// a file served while every worker is busy.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "fixture.h"
#include "raw_conn.h"

using namespace e2e;

namespace {

// One request sent exactly as written (no client tidies its target); the
// whole answer, or "" when the daemon closed without one.
std::string exactly(int port, const std::string& request) {
    RawConn c;
    if (!c.connect(port) || !c.handshake() || !c.send(request))
        return "";
    return c.readUntilClose(10000);
}

std::string fetch(int port, const std::string& target, const std::string& headers = "") {
    return exactly(port, "GET " + target + " HTTP/1.1\r\nHost: router\r\nConnection: close\r\n" +
                             headers + "\r\n");
}

std::string statusOf(const std::string& answer) {
    return answer.substr(0, answer.find("\r\n"));
}

std::string header(const std::string& answer, const std::string& name) {
    size_t at = answer.find("\r\n" + name + ": ");
    if (at == std::string::npos || at > answer.find("\r\n\r\n"))
        return "";
    at += name.size() + 4;
    return answer.substr(at, answer.find("\r\n", at) - at);
}

std::string bodyOf(const std::string& answer) {
    size_t at = answer.find("\r\n\r\n");
    return at == std::string::npos ? "" : answer.substr(at + 4);
}

class ConsoleFiles : public DaemonTest {
  protected:
    // A console folder of the test's own, with what an attacker hopes to
    // reach beside it.
    void ownFolder() {
        std::string dir = root.path("/console");
        mkdir(dir.c_str(), 0755);
        mkdir((dir + "/js").c_str(), 0755);
        std::ofstream(dir + "/index.html") << "<!doctype html><title>page</title>";
        std::ofstream(dir + "/js/app.js") << "export const app = 1;\n";
        std::ofstream(dir + "/.hidden.txt") << "hidden";
        std::ofstream(dir + "/run.sh") << "#!/bin/sh\n";
        std::ofstream(root.path("/secret.txt")) << "SECRET";
        symlink(root.path("/secret.txt").c_str(), (dir + "/link.txt").c_str());
        symlink(root.path("/etc").c_str(), (dir + "/outside").c_str());
        std::string deep = dir;
        for (int i = 0; i < 6; ++i)
            mkdir((deep += "/d").c_str(), 0755);
        std::ofstream(deep + "/deep.txt") << "too deep";
        d.setEnv("WHTTPD_CONSOLE_DIR", dir);
    }
};

TEST_F(ConsoleFiles, ThePageAndItsFilesWithTheirHeaders) {
    start();
    std::string page = fetch(port, "/");
    ASSERT_EQ("HTTP/1.1 200 OK", statusOf(page)) << page;
    EXPECT_EQ("text/html; charset=utf-8", header(page, "Content-Type"));
    std::string csp = header(page, "Content-Security-Policy");
    EXPECT_NE(std::string::npos, csp.find("default-src 'self'")) << csp;
    EXPECT_NE(std::string::npos, csp.find("frame-ancestors 'none'")) << csp;
    EXPECT_EQ(std::string::npos, csp.find("unsafe-inline")) << csp;
    EXPECT_EQ("nosniff", header(page, "X-Content-Type-Options"));
    EXPECT_EQ("no-referrer", header(page, "Referrer-Policy"));
    EXPECT_NE(std::string::npos, bodyOf(page).find("/ui/js/app.js"));
    std::string script = fetch(port, "/ui/js/app.js?v=2");
    ASSERT_EQ("HTTP/1.1 200 OK", statusOf(script));
    EXPECT_EQ("text/javascript; charset=utf-8", header(script, "Content-Type"));
    // An unchanged file costs an empty answer.
    std::string etag = header(script, "ETag");
    ASSERT_FALSE(etag.empty());
    std::string again = fetch(port, "/ui/js/app.js", "If-None-Match: " + etag + "\r\n");
    EXPECT_EQ("HTTP/1.1 304 Not Modified", statusOf(again));
    EXPECT_EQ("", bodyOf(again));
    EXPECT_EQ("HTTP/1.1 200 OK",
              statusOf(fetch(port, "/ui/js/app.js", "If-None-Match: \"x\"\r\n")));
    // HEAD: the headers of GET, no body; other methods refused.
    std::string head =
        exactly(port, "HEAD /ui/js/app.js HTTP/1.1\r\nHost: r\r\nConnection: close\r\n\r\n");
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(head));
    EXPECT_EQ(header(script, "Content-Length"), header(head, "Content-Length"));
    EXPECT_EQ("", bodyOf(head));
    for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS"}) {
        std::string refused = exactly(port, std::string(method) +
                                                " / HTTP/1.1\r\nHost: r\r\nContent-Length: 0\r\n"
                                                "Connection: close\r\n\r\n");
        EXPECT_EQ("HTTP/1.1 405 Method Not Allowed", statusOf(refused)) << method;
        EXPECT_EQ("GET, HEAD", header(refused, "Allow")) << method;
    }
}

// Dots, escapes, NUL, doubled and back slashes, links out of the folder,
// hidden and unknown files, a listing, a path too deep or too long: all 404.
TEST_F(ConsoleFiles, NoWayOutOfTheFolder) {
    ownFolder();
    start();
    ASSERT_EQ("HTTP/1.1 200 OK", statusOf(fetch(port, "/ui/index.html")));
    for (const std::string& target :
         std::vector<std::string>{"/ui/../secret.txt",
                                  "/ui/js/../../secret.txt",
                                  "/ui/%2e%2e/secret.txt",
                                  "/ui/%2E%2E%2Fsecret.txt",
                                  "/ui/js/..%2fapp.js",
                                  "/ui/index.html%00.js",
                                  "//ui/index.html",
                                  "/ui//index.html",
                                  "/ui/./index.html",
                                  "/ui\\index.html",
                                  "/ui/js\\app.js",
                                  "/ui/link.txt",
                                  "/ui/outside/passwd",
                                  "/ui/outside/",
                                  "/ui/.hidden.txt",
                                  "/ui/run.sh",
                                  "/ui/",
                                  "/ui",
                                  "/ui/js/",
                                  "/ui/d/d/d/d/d/d/deep.txt",
                                  "/secret.txt",
                                  "/../secret.txt",
                                  "/ui/" + std::string(3000, 'a') + ".js",
                                  "/index.html",
                                  "*"}) {
        std::string answer = fetch(port, target);
        EXPECT_EQ("HTTP/1.1 404 Not Found", statusOf(answer)) << target;
        EXPECT_EQ(std::string::npos, answer.find("SECRET")) << target;
        EXPECT_EQ(std::string::npos, answer.find("root:")) << target;
    }
}

// What the API routes stays the API's; another version of it gets no answer.
TEST_F(ConsoleFiles, TheApiKeepsItsUris) {
    start();
    for (const char* target : {"/api/v1/MethodList", "/xyz/v1/MethodList", "/ui/xv1/MethodList"}) {
        std::string answer = fetch(port, target);
        EXPECT_EQ("HTTP/1.1 401 Unauthorized", statusOf(answer)) << target;
        EXPECT_NE(std::string::npos, answer.find("Invalid Session ID")) << target;
    }
    EXPECT_EQ("", fetch(port, "/api/v2/MethodList"));
    EXPECT_EQ("", fetch(port, "/api/"));
}

// Every worker waits for a silent service: the console's files are still
// served, by the network thread that read the request.
TEST_F(ConsoleFiles, ServedWhileEveryWorkerWaits) {
    d.setEnv("WHTTPD_HTTP_LIMITS", "min_workers=1,max_workers=1,queue=4");
    start();
    ASSERT_EQ(0, root.wcfgctl({"knob", "wifi.wps.delay_ms", "600000"}));
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.AccessPoint.1.WPS.",
                               "{\"X_OlVEX_TriggerWPSPushButton\":true}"}));
    // A read of the WPS object asks the silent service: it holds the worker.
    RawConn waiting;
    ASSERT_TRUE(waiting.connect(port) && waiting.handshake());
    ASSERT_TRUE(
        waiting.send("GET /api/v1/TR181/Value/Device.WiFi.AccessPoint.1.WPS. HTTP/1.1\r\n"
                     "Host: r\r\nCookie: Session=" +
                     s.id + "\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 200 OK", statusOf(fetch(port, "/")));
    EXPECT_EQ("", waiting.readSome(0)) << "the worker's request was answered: nothing waited";
    d.signal(SIGKILL);
    d.wait(20000);
    port = 0;
}

}  // namespace
