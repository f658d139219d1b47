// Data-model load against a running daemon over HTTPS with keep-alive: each
// thread logs in once, keeps its connection and repeats one kind of request.
//   value_bench PORT THREADS REQUESTS_PER_THREAD MODE
// MODE: get-object (GET Device.DeviceInfo.), get-tree (GET Device. with
// first_level_only=false), put (PUT one parameter of Device.NAT.PortMapping.1.).
// Prints requests per second and latency percentiles.
#include <curl/curl.h>

#include "bench_stats.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

size_t collect(char* data, size_t size, size_t n, void* out) {
    static_cast<std::string*>(out)->append(data, size * n);
    return size * n;
}

long keyOf(const std::string& body) {
    auto at = body.find("\"sessionkey\": ");
    return at == std::string::npos ? -1 : atol(body.c_str() + at + 14);
}

struct Conn {
    CURL* c = curl_easy_init();
    std::string body, headers;
    ~Conn() { curl_easy_cleanup(c); }
    long perform(const std::string& method, const std::string& url, const std::string& data,
                 const std::string& cookie) {
        body.clear();
        headers.clear();
        curl_easy_setopt(c, CURLOPT_URL, url.c_str());
        curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, method.c_str());
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(c, CURLOPT_WRITEDATA, &body);
        curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, collect);
        curl_easy_setopt(c, CURLOPT_HEADERDATA, &headers);
        curl_easy_setopt(c, CURLOPT_COOKIE, cookie.empty() ? nullptr : cookie.c_str());
        if (method == "GET") {
            curl_easy_setopt(c, CURLOPT_HTTPGET, 1L);
            curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, nullptr);
        } else {
            curl_easy_setopt(c, CURLOPT_POSTFIELDS, data.c_str());
            curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(data.size()));
        }
        long status = 0;
        if (curl_easy_perform(c) == CURLE_OK)
            curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
        return status;
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        fprintf(stderr, "usage: %s PORT THREADS REQUESTS_PER_THREAD MODE\n", argv[0]);
        return 2;
    }
    int threads = atoi(argv[2]), per = atoi(argv[3]);
    std::string mode = argv[4];
    std::string base = "https://127.0.0.1:" + std::string(argv[1]) + "/api/v1/";
    curl_global_init(CURL_GLOBAL_DEFAULT);

    LoadStats stats(threads);
    std::vector<std::thread> pool;
    auto t0 = std::chrono::steady_clock::now();
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            Conn conn;
            if (conn.perform("POST", base + "UserLogin",
                             "{\"username\":\"admin\",\"password\":\"1234abcd\"}", "") != 200) {
                stats.failures[t] = per;
                return;
            }
            auto at = conn.headers.find("Session=");
            std::string cookie = conn.headers.substr(at, conn.headers.find(';', at) - at);
            long key = keyOf(conn.body);
            for (int i = 0; i < per; ++i) {
                auto a = std::chrono::steady_clock::now();
                long status;
                if (mode == "get-object") {
                    status =
                        conn.perform("GET", base + "TR181/Value/Device.DeviceInfo.", "", cookie);
                } else if (mode == "get-tree") {
                    status = conn.perform(
                        "GET", base + "TR181/Value/Device.?first_level_only=false", "", cookie);
                } else {
                    status = conn.perform(
                        "PUT",
                        base + "TR181/Value/Device.NAT.PortMapping.1.?sessionkey=" +
                            std::to_string(key),
                        "{\"Description\":\"bench" + std::to_string(i) + "\"}", cookie);
                    key = keyOf(conn.body);
                }
                auto b = std::chrono::steady_clock::now();
                if (status != 200 ||
                    conn.body.find("\"oper_status\": \"Success\"") == std::string::npos)
                    ++stats.failures[t];
                stats.latencyMs[t].push_back(
                    std::chrono::duration<double, std::milli>(b - a).count());
            }
        });
    }
    for (auto& th : pool)
        th.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    int failed = stats.report(mode.c_str(), "req", secs);
    curl_global_cleanup();
    return failed ? 1 : 0;
}
