#include "client.h"

#include <json-c/json.h>

#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <thread>
#include <vector>

namespace e2e {

Reply Client::request(const std::string& method, const std::string& path, const std::string& body,
                      const Session* session) const {
    std::string host = host_.find(':') != std::string::npos ? "[" + host_ + "]" : host_;
    std::string url = "https://" + host + ":" + std::to_string(port_) + "/api/v1/" + path;
    std::vector<std::string> headers;
    if (session && !session->id.empty())
        headers.push_back("Cookie: Session=" + session->id);
    return https(method, url, body, headers, local_);
}

Reply Client::write(const std::string& method, const std::string& path, const std::string& body,
                    Session& session) const {
    Reply r = request(method, withKey(path, session), body, &session);
    long key = jsonInt(r.body, "sessionkey");
    if (key >= 0)
        session.key = key;
    return r;
}

Reply Client::login(const std::string& user, const std::string& password, Session* session,
                    const Session* cookie) const {
    std::string body = "{\"username\":\"" + user + "\",\"password\":\"" + password + "\"}";
    Reply r = request("POST", "UserLogin", body, cookie);
    if (session && r.status == 200) {
        auto at = r.headers.find("Session=");
        if (at != std::string::npos) {
            at += 8;
            session->id = r.headers.substr(at, r.headers.find(';', at) - at);
        }
        session->key = jsonInt(r.body, "sessionkey");
    }
    return r;
}

std::string operStatus(const Reply& r) {
    json_object* doc = json_tokener_parse(r.body.c_str());
    std::string text;
    json_object* v = nullptr;
    if (doc && json_object_object_get_ex(doc, "oper_status", &v))
        text = json_object_get_string(v);
    json_object_put(doc);
    return text;
}

long jsonInt(const std::string& body, const std::string& key) {
    json_object* doc = json_tokener_parse(body.c_str());
    long value = -1;
    json_object* v = nullptr;
    if (doc && json_object_object_get_ex(doc, key.c_str(), &v) &&
        json_object_is_type(v, json_type_int))
        value = static_cast<long>(json_object_get_int64(v));
    json_object_put(doc);
    return value;
}

std::string withKey(const std::string& path, const Session& s) {
    return path + (path.find('?') == std::string::npos ? "?" : "&") +
           "sessionkey=" + std::to_string(s.key);
}

size_t countOf(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

void sleepMs(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

int setMaxLoginAccounts(const DeviceRoot& root, int max) {
    return root.wcfgctl({"set", "Device.X_OLVEX_LoginCfg.",
                         "{\"MaximumLoginAccountNumber\":" + std::to_string(max) + "}"});
}

Uptime::Uptime(const DeviceRoot& root) : path_(root.path("/.uptime")) {
    set(1000);
}

void Uptime::set(double seconds) {
    seconds_ = seconds;
    // Written aside and renamed, so that the daemon never reads half a line.
    std::string tmp = path_ + ".tmp";
    FILE* f = fopen(tmp.c_str(), "w");
    if (!f)
        abort();
    fprintf(f, "%.2f %.2f\n", seconds, seconds);
    fclose(f);
    rename(tmp.c_str(), path_.c_str());
}

int startDaemon(Daemon& d, const DeviceRoot& root, const Uptime* clock) {
    int port = freePort();
    if (clock)
        d.setEnv("WHTTPD_UPTIME_FILE", clock->path());
    if (!d.start(root, {"-s", std::to_string(port)}) || !d.waitReady(port))
        return 0;
    return port;
}

}  // namespace e2e
