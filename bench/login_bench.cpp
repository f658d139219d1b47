// Login load against a running daemon: each thread keeps one HTTPS
// connection alive and logs in again and again (every login without a cookie
// opens a new session).  Prints logins per second and latency percentiles.
//   login_bench PORT THREADS LOGINS_PER_THREAD [USER PASSWORD]
#include <curl/curl.h>

#include "bench_stats.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

size_t discard(char*, size_t size, size_t n, void*) {
    return size * n;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: %s PORT THREADS LOGINS_PER_THREAD [USER PASSWORD]\n", argv[0]);
        return 2;
    }
    int port = atoi(argv[1]), threads = atoi(argv[2]), per = atoi(argv[3]);
    std::string user = argc > 5 ? argv[4] : "admin";
    std::string password = argc > 5 ? argv[5] : "1234abcd";
    std::string url = "https://127.0.0.1:" + std::to_string(port) + "/api/v1/UserLogin";
    std::string body = "{\"username\":\"" + user + "\",\"password\":\"" + password + "\"}";
    curl_global_init(CURL_GLOBAL_DEFAULT);

    LoadStats stats(threads);
    auto t0 = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            CURL* c = curl_easy_init();
            curl_easy_setopt(c, CURLOPT_URL, url.c_str());
            curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 0L);
            curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 0L);
            curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
            curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.c_str());
            curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, discard);
            for (int i = 0; i < per; ++i) {
                auto a = std::chrono::steady_clock::now();
                long status = 0;
                if (curl_easy_perform(c) == CURLE_OK)
                    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
                auto b = std::chrono::steady_clock::now();
                if (status != 200)
                    ++stats.failures[t];
                stats.latencyMs[t].push_back(
                    std::chrono::duration<double, std::milli>(b - a).count());
            }
            curl_easy_cleanup(c);
        });
    }
    for (auto& th : pool)
        th.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    int failed = stats.report("logins", "logins", secs);
    curl_global_cleanup();
    return failed ? 1 : 0;
}
