// A mixed load for the soak run: CLIENTS threads for SECONDS, each with a
// keep-alive connection from an address of its own (127.0.1.N), repeating a round of logins, object
// and tree reads, writes, batches, adds and deletes, malformed requests and logouts.  Every answer
// is checked against what that request must get; anything else (a transport error included) counts
// as an error.
//   soak_load PORT CLIENTS SECONDS
// Prints the requests per kind and the errors; exits 1 on any error.
#include <curl/curl.h>
#include <json-c/json.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

size_t collect(char* data, size_t size, size_t n, void* out) {
    static_cast<std::string*>(out)->append(data, size * n);
    return size * n;
}

struct Answer {
    long status = 0;
    CURLcode code = CURLE_OK;
    std::string headers, body;
    bool has(const char* text) const { return body.find(text) != std::string::npos; }
};

class Conn {
  public:
    // `local`: the client's own source address (each client is a device of
    // its own on the LAN).
    Conn(std::string base, std::string local) : base_(std::move(base)), local_(std::move(local)) {}
    ~Conn() { curl_easy_cleanup(c_); }
    Answer send(const std::string& method, const std::string& path, const std::string& data = "",
                const std::vector<std::string>& extra = {}) {
        Answer a;
        curl_easy_reset(c_);
        curl_easy_setopt(c_, CURLOPT_URL, (base_ + path).c_str());
        curl_easy_setopt(c_, CURLOPT_CUSTOMREQUEST, method.c_str());
        curl_easy_setopt(c_, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(c_, CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(c_, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(c_, CURLOPT_TIMEOUT, 60L);
        curl_easy_setopt(c_, CURLOPT_INTERFACE, local_.c_str());
        curl_easy_setopt(c_, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(c_, CURLOPT_WRITEDATA, &a.body);
        curl_easy_setopt(c_, CURLOPT_HEADERFUNCTION, collect);
        curl_easy_setopt(c_, CURLOPT_HEADERDATA, &a.headers);
        if (!cookie_.empty())
            curl_easy_setopt(c_, CURLOPT_COOKIE, cookie_.c_str());
        if (method != "GET") {
            curl_easy_setopt(c_, CURLOPT_POSTFIELDS, data.c_str());
            curl_easy_setopt(c_, CURLOPT_POSTFIELDSIZE, static_cast<long>(data.size()));
        }
        curl_slist* list = nullptr;
        for (const std::string& h : extra)
            list = curl_slist_append(list, h.c_str());
        curl_easy_setopt(c_, CURLOPT_HTTPHEADER, list);
        a.code = curl_easy_perform(c_);
        if (a.code == CURLE_OK)
            curl_easy_getinfo(c_, CURLINFO_RESPONSE_CODE, &a.status);
        curl_slist_free_all(list);
        size_t at = a.body.find("\"sessionkey\": ");
        if (at != std::string::npos)
            key_ = atol(a.body.c_str() + at + 14);
        return a;
    }
    bool login() {
        cookie_.clear();
        Answer a = send("POST", "UserLogin", R"({"username":"admin","password":"1234abcd"})");
        size_t at = a.headers.find("Session=");
        if (a.status != 200 || at == std::string::npos)
            return false;
        cookie_ = a.headers.substr(at, a.headers.find(';', at) - at);
        return true;
    }
    std::string keyed(const std::string& path) const {
        return path + (path.find('?') == std::string::npos ? "?" : "&") +
               "sessionkey=" + std::to_string(key_);
    }

  private:
    CURL* c_ = curl_easy_init();
    std::string base_, local_, cookie_;
    long key_ = 0;
};

struct Step {
    const char* kind;
    bool (*run)(Conn& c, int thread, long round);
};

// The instance number of the table row whose Description is `tag` (rows
// stand at their instance's place), or 0.
int instanceOf(const std::string& body, const std::string& tag) {
    json_object* doc = json_tokener_parse(body.c_str());
    json_object* rows = nullptr;
    int found = 0;
    if (doc && json_object_object_get_ex(doc, "Object", &rows) &&
        json_object_is_type(rows, json_type_array)) {
        for (size_t i = 0; i < json_object_array_length(rows) && !found; ++i) {
            json_object* d = nullptr;
            if (json_object_object_get_ex(json_object_array_get_idx(rows, i), "Description", &d) &&
                tag == json_object_get_string(d))
                found = static_cast<int>(i) + 1;
        }
    }
    json_object_put(doc);
    return found;
}

bool success(const Answer& a) {
    return a.status == 200 && a.has("\"oper_status\": \"Success\"");
}

const Step kRound[] = {
    {"read",
     [](Conn& c, int, long) { return success(c.send("GET", "TR181/Value/Device.DeviceInfo.")); }},
    {"write",
     [](Conn& c, int t, long r) {
         return success(c.send(
             "PUT", c.keyed("TR181/Value/Device.NAT.PortMapping.1."),
             "{\"Description\":\"soak-" + std::to_string(t) + "-" + std::to_string(r) + "\"}"));
     }},
    {"batch",
     [](Conn& c, int t, long) {
         return success(
             c.send("PUT", c.keyed("TR181/Value/MultiObjects"),
                    R"({"MultiObjects":true,"TR181_Objects":[{"object_path":"Device.WiFi.SSID.1.",)"
                    R"("SSID":"soak-)" +
                        std::to_string(t) +
                        R"("},{"object_path":"Device.NAT.PortMapping.1.","Enable":true}]})"));
     }},
    {"add+delete",
     [](Conn& c, int t, long r) {
         const std::string table = "TR181/Value/Device.NAT.PortMapping.";
         std::string tag = "soak-add-" + std::to_string(t) + "-" + std::to_string(r);
         if (!success(c.send("POST", c.keyed(table), "{\"Description\":\"" + tag + "\"}")))
             return false;
         int instance = instanceOf(c.send("GET", table).body, tag);
         return instance > 0 &&
                success(c.send("DELETE", c.keyed(table + std::to_string(instance) + ".")));
     }},
    {"tree",
     [](Conn& c, int, long r) {
         if (r % 8)
             return true;  // one round in eight: the whole tree is large
         return success(c.send("GET", "TR181/Value/Device.?first_level_only=false"));
     }},
    {"malformed",
     [](Conn& c, int, long) {
         Answer bad = c.send("PUT", c.keyed("TR181/Value/Device.WiFi.SSID.1."), "{\"SSID\":");
         Answer path = c.send("GET", "TR181/Value/Device.Nothing.Here.");
         Answer big = c.send("GET", "MethodList", "", {"X-Big: " + std::string(20000, 'x')});
         Answer utf =
             c.send("PUT", c.keyed("TR181/Value/Device.WiFi.SSID.1."), "{\"SSID\":\"\xff\xfe\"}");
         // Text that is not UTF-8 is answered as text that is not JSON.
         bool ok = bad.status == 200 && utf.status == bad.status && !path.has("\"Success\"") &&
                   big.status == 431;
         if (!ok)
             fprintf(stderr, "malformed: %ld %ld %ld %ld %s\n", bad.status, utf.status, path.status,
                     big.status, curl_easy_strerror(utf.code));
         return ok;
     }},
    {"logout+login",
     [](Conn& c, int, long r) {
         if (r % 4)
             return true;
         Answer out = c.send("POST", c.keyed("UserLogout"));
         return out.status == 200 && c.login();
     }},
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: %s PORT CLIENTS SECONDS\n", argv[0]);
        return 2;
    }
    std::string base = "https://127.0.0.1:" + std::string(argv[1]) + "/api/v1/";
    int clients = atoi(argv[2]);
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(atoi(argv[3]));
    curl_global_init(CURL_GLOBAL_DEFAULT);
    const size_t kinds = sizeof kRound / sizeof kRound[0];
    std::vector<std::atomic<long>> done(kinds), errors(kinds);
    std::mutex printMutex;
    std::vector<std::thread> pool;
    for (int t = 0; t < clients; ++t) {
        pool.emplace_back([&, t] {
            Conn c(base, "127.0.1." + std::to_string(1 + t % 250));
            if (!c.login()) {
                ++errors[kinds - 1];
                return;
            }
            for (long round = 0; std::chrono::steady_clock::now() < end; ++round) {
                for (size_t k = 0; k < kinds; ++k) {
                    ++done[k];
                    if (kRound[k].run(c, t, round))
                        continue;
                    ++errors[k];
                    std::lock_guard<std::mutex> lock(printMutex);
                    fprintf(stderr, "client %d round %ld: %s failed\n", t, round, kRound[k].kind);
                    c.login();
                }
            }
        });
    }
    for (auto& th : pool)
        th.join();
    long total = 0;
    for (size_t k = 0; k < kinds; ++k) {
        printf("%-13s %8ld rounds, %ld errors\n", kRound[k].kind, done[k].load(), errors[k].load());
        total += errors[k];
    }
    printf("errors %ld\n", total);
    curl_global_cleanup();
    return total ? 1 : 0;
}
