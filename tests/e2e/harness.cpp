// The end-to-end harness: device roots, the daemon and its tools as child
// processes, the stand-in cloud, free ports (harness.h).
#include "harness.h"

#include <curl/curl.h>
#include <json-c/json.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ctime>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>

#include "client.h"
#include "device/bus.h"

namespace e2e {

namespace {

std::string slurp(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Starts a program of the project in device root `root`.  It dies with the
// thread that started it: a test process that aborts (a sanitizer report, a
// failed assertion in a helper thread, ctest's time-out) leaves no daemon or
// cloud behind.  Every caller starts and waits for its programs on one thread.
pid_t spawn(const std::vector<std::string>& argv, const std::string& root, const std::string& out,
            const std::string& err,
            const std::vector<std::pair<std::string, std::string>>& env = {}) {
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    dieWithParent(parent);
    setenv("WHTTPD_ROOT", root.c_str(), 1);
    setenv("WHTTPD_SECOND_MS", "10", 1);
    // A name that begins with "-" is one to go without.
    for (const auto& [name, value] : env) {
        if (name[0] == '-')
            unsetenv(name.c_str() + 1);
        else
            setenv(name.c_str(), value.c_str(), 1);
    }
    int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (o >= 0)
        dup2(o, 1);
    if (e >= 0)
        dup2(e, 2);
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

int waitStatus(pid_t pid, int timeoutMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (r < 0)
            return -1;
        if (std::chrono::steady_clock::now() > end)
            return -1000;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

size_t collect(char* data, size_t size, size_t n, void* out) {
    static_cast<std::string*>(out)->append(data, size * n);
    return size * n;
}

}  // namespace

// With WHTTPD_CONTRACT_DIR set, every answer that a test receives is kept as
// one JSON line (method, path with query, status, Content-Type, body) in
// contract-<pid>.jsonl there, for tests/contract/check_contract.py to check
// against docs/openapi.yaml.  One file per process, so that parallel test
// processes never interleave; one mutex, so that the threads of one do not.
void recordExchange(const std::string& method, const std::string& url, const Reply& r,
                    const char* contentType) {
    static const char* dir = getenv("WHTTPD_CONTRACT_DIR");
    if (!dir || !*dir || !r.ok)
        return;
    static std::mutex mutex;
    static FILE* out = nullptr;
    size_t scheme = url.find("://");
    size_t at = scheme == std::string::npos ? 0 : url.find('/', scheme + 3);
    json_object* line = json_object_new_object();
    json_object_object_add(line, "method", json_object_new_string(method.c_str()));
    json_object_object_add(line, "path",
                           json_object_new_string(at == std::string::npos ? "" : url.c_str() + at));
    json_object_object_add(line, "status", json_object_new_int(static_cast<int>(r.status)));
    json_object_object_add(line, "content_type",
                           contentType ? json_object_new_string(contentType) : nullptr);
    json_object_object_add(
        line, "body", json_object_new_string_len(r.body.data(), static_cast<int>(r.body.size())));
    // The headers, by lower-case name (the last of a repeated one), when
    // the client kept them.
    json_object* headers = r.headers.empty() ? nullptr : json_object_new_object();
    for (size_t at = r.headers.find("\r\n"); headers && at != std::string::npos;) {
        size_t end = r.headers.find("\r\n", at + 2);
        std::string h = r.headers.substr(at + 2, end == std::string::npos ? end : end - at - 2);
        size_t colon = h.find(':');
        if (colon != std::string::npos) {
            std::string name = h.substr(0, colon);
            for (char& c : name)
                c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
            size_t v = h.find_first_not_of(' ', colon + 1);
            json_object_object_add(
                headers, name.c_str(),
                json_object_new_string(v == std::string::npos ? "" : h.c_str() + v));
        }
        at = end;
    }
    if (headers)
        json_object_object_add(line, "headers", headers);
    std::string text = json_object_to_json_string_ext(line, JSON_C_TO_STRING_PLAIN);
    json_object_put(line);
    std::lock_guard<std::mutex> lock(mutex);
    if (!out) {
        std::string file = std::string(dir) + "/contract-" + std::to_string(getpid()) + ".jsonl";
        out = fopen(file.c_str(), "a");
        if (!out)
            return;
    }
    fprintf(out, "%s\n", text.c_str());
    fflush(out);
}

void dieWithParent(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)  // the parent died before the request took effect
        _exit(127);
}

DeviceRoot::DeviceRoot() {
    char tmpl[] = "/tmp/whttpd-e2e-XXXXXX";
    dir_ = mkdtemp(tmpl);
    std::string out;
    if (wcfgctl({"init"}, &out) != 0)
        dir_.clear();
}

DeviceRoot::~DeviceRoot() {
    if (!dir_.empty() && !getenv("WHTTPD_KEEP_ROOT")) {
        std::string cmd = "rm -rf '" + dir_ + "'";
        (void)!system(cmd.c_str());
    }
}

int DeviceRoot::wcfgctl(const std::vector<std::string>& args, std::string* out) const {
    std::vector<std::string> argv{WCFGCTL_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, out);
}

int DeviceRoot::run(const std::vector<std::string>& argv, std::string* out) const {
    std::string o = dir_ + "/.run.out", e = dir_ + "/.run.err";
    pid_t pid = spawn(argv, dir_, o, e);
    int rc = waitStatus(pid, 60000);
    if (out)
        *out = slurp(o);
    return rc;
}

std::string peerProgram(const std::string& name, const std::string& own) {
    const char* dir = getenv("WHTTPD_PEER_BINDIR");
    return dir && *dir ? std::string(dir) + "/" + name : own;
}

std::string DeviceRoot::read(const std::string& abs) const {
    return slurp(path(abs));
}
bool DeviceRoot::exists(const std::string& abs) const {
    return access(path(abs).c_str(), F_OK) == 0;
}

Daemon::~Daemon() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitStatus(pid_, 5000);
    }
}

bool Daemon::start(const DeviceRoot& root, const std::vector<std::string>& args) {
    static int serial = 0;
    outFile_ = root.dir() + "/.daemon" + std::to_string(++serial) + ".out";
    errFile_ = root.dir() + "/.daemon" + std::to_string(serial) + ".err";
    std::vector<std::string> argv{WHTTPD_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    // Each daemon answers discovery on a port of its own.
    auto env = env_;
    bool givenPort = false;
    for (const auto& [name, value] : env)
        givenPort |= name == "WHTTPD_DISCOVERY_PORT";
    if (!givenPort) {
        discoveryPort_ = freeUdpPort();
        env.emplace_back("WHTTPD_DISCOVERY_PORT", std::to_string(discoveryPort_));
    }
    rootDir_ = root.dir();
    pid_ = spawn(argv, root.dir(), outFile_, errFile_, env);
    return pid_ > 0;
}

bool Daemon::waitReady(int port, int timeoutMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < end) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bool up = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        close(fd);
        // The listener is open; the bus endpoint and the discovery port come
        // up after it.
        if (up && out().find("Initial http with port") != std::string::npos && busBound() &&
            (discoveryPort_ == 0 || udpPortTaken(discoveryPort_)))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

bool Daemon::busBound() const {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::string path = rootDir_ + "/var/run/wcfg/eid." + std::to_string(WCFG_EID_WHTTPD);
    if (path.size() >= sizeof a.sun_path)
        return false;
    memcpy(a.sun_path, path.c_str(), path.size() + 1);
    // A datagram socket connects only where a socket is bound (a name left
    // by an earlier daemon refuses).
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool bound = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return bound;
}

int Daemon::stop(int sig, int timeoutMs) {
    if (pid_ <= 0)
        return -1;
    kill(pid_, sig);
    return wait(timeoutMs);
}

int Daemon::wait(int timeoutMs) {
    if (pid_ <= 0)
        return -1;
    int rc = waitStatus(pid_, timeoutMs);
    if (rc != -1000)
        pid_ = -1;
    return rc;
}

void Daemon::signal(int sig) const {
    if (pid_ > 0)
        kill(pid_, sig);
}

std::string Daemon::out() const {
    return slurp(outFile_);
}
std::string Daemon::err() const {
    return slurp(errFile_);
}

bool Daemon::waitForOutput(const std::string& text, int timeoutMs) const {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < end) {
        if (out().find(text) != std::string::npos || err().find(text) != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

bool Daemon::waitForCount(const std::string& text, size_t count, int timeoutMs) const {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < end) {
        if (countOf(out(), text) + countOf(err(), text) >= count)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

Cloud::~Cloud() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitStatus(pid_, 5000);
    }
}

bool Cloud::start(const DeviceRoot& root, const std::vector<std::string>& args) {
    root_ = root.dir();
    outFile_ = root_ + "/.fwcloud.out";
    errFile_ = root_ + "/.fwcloud.err";
    std::vector<std::string> argv{FWCLOUD_BIN, "--port", "0"};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_ = spawn(argv, root_, outFile_, errFile_);
    const std::string marker = "serving https://127.0.0.1:";
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end) {
        std::string out = slurp(outFile_);
        size_t at = out.find(marker);
        if (at != std::string::npos && out.find('\n', at) != std::string::npos) {
            port_ = atoi(out.c_str() + at + marker.size());
            return root.wcfgctl({"set", "Device.X_OLVEX_PeriodicOnlineFWUpgrade.",
                                 "{\"ServerURL\":\"" + url("/check?") + "\"}"}) == 0;
        }
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

std::string Cloud::url(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(port_) + path;
}
std::string Cloud::log() const {
    return slurp(root_ + "/srv/fwcloud/access.log");
}
std::string Cloud::err() const {
    return slurp(errFile_);
}

Reply https(const std::string& method, const std::string& url, const std::string& body,
            const std::vector<std::string>& headers, const std::string& local) {
    Reply r;
    CURL* c = curl_easy_init();
    if (!c)
        return r;
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(c, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    if (!local.empty())
        curl_easy_setopt(c, CURLOPT_INTERFACE, local.c_str());
    if (!body.empty() || method == "POST" || method == "PUT") {
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    }
    curl_slist* list = nullptr;
    for (const auto& h : headers)
        list = curl_slist_append(list, h.c_str());
    if (list)
        curl_easy_setopt(c, CURLOPT_HTTPHEADER, list);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &r.body);
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, collect);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &r.headers);
    r.ok = curl_easy_perform(c) == CURLE_OK;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &r.status);
    char* contentType = nullptr;
    curl_easy_getinfo(c, CURLINFO_CONTENT_TYPE, &contentType);
    recordExchange(method, url, r, contentType);
    curl_slist_free_all(list);
    curl_easy_cleanup(c);
    return r;
}

int freeUdpPort() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

// Read from the kernel's table of IPv4 UDP sockets ("sl local_address ...",
// the address as HEXADDR:HEXPORT): a probe that bound the port itself could
// take it from the daemon.
bool udpPortTaken(int port) {
    char local[16];
    snprintf(local, sizeof local, ":%04X ", static_cast<unsigned>(port));
    std::istringstream table(slurp("/proc/net/udp"));
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, address;
        if (fields >> slot >> address && (address + " ").find(local) != std::string::npos)
            return true;
    }
    return false;
}

}  // namespace e2e
