// Platform utilities: device-root paths, shell commands, console output,
// the levelled log and the vxUtil helpers.
#include "base/platform.h"

#include "base/console.h"

#include <crypt.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>

const std::string& platformRoot() {
    static const std::string root = [] {
        const char* r = getenv("WHTTPD_ROOT");
        std::string s = (r && *r) ? r : "/";
        while (s.size() > 1 && s.back() == '/')
            s.pop_back();
        return s;
    }();
    return root;
}

std::string platformPath(const char* absPath) {
    const std::string& root = platformRoot();
    if (root == "/")
        return absPath;
    return root + absPath;
}

std::string platformToolDir() {
    return platformPath("/usr/sbin");
}

bool platformMakeDirs(const std::string& dir) {
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos != dir.size() && dir[pos] != '/')
            continue;
        std::string part = dir.substr(0, pos);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    struct stat st;
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

namespace {

bool syncDirectory(const std::string& dir) {
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = fsync(fd) == 0;
    close(fd);
    return ok;
}

bool writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

bool platformReplaceFile(const std::string& file, const std::string& text, unsigned mode) {
    std::string tmp = file + ".XXXXXX";
    int fd = mkostemp(tmp.data(), O_CLOEXEC);  // 0600 until fchmod: never more open than asked
    if (fd < 0)
        return false;
    bool ok = fchmod(fd, static_cast<mode_t>(mode)) == 0 && writeAll(fd, text) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    ok = ok && rename(tmp.c_str(), file.c_str()) == 0;
    if (!ok) {
        unlink(tmp.c_str());
        return false;
    }
    return syncDirectory(file.substr(0, file.rfind('/')));
}

unsigned long platformUptimeSeconds() {
    // The clock that /proc/uptime shows, read without opening the file.
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return static_cast<unsigned long>(ts.tv_sec);
}

std::string platformNowIso() {
    time_t t = time(nullptr);
    tm tmv{};
    gmtime_r(&t, &tmv);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tmv);
    return buf;
}

void platformInit() {
    const char* old = getenv("PATH");
    std::string path = platformToolDir() + ":" + (old ? old : "/usr/bin:/bin");
    setenv("PATH", path.c_str(), 1);
}

void platformBlockStopSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int s : {SIGTERM, SIGQUIT, SIGINT, SIGUSR1, SIGUSR2})
        sigaddset(&set, s);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

namespace {

// In a child: standard input from /dev/null, every signal unblocked.
void prepareChild() {
    int fd = open("/dev/null", O_RDONLY);
    if (fd >= 0) {
        dup2(fd, 0);
        close(fd);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

int waitChild(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

}  // namespace

int platformExec(int flags, const char* const argv[], long long maxFileBytes) {
    if (!argv || !argv[0])
        return -1;
    if (flags & 1)
        wlog_log_f(WLOG_DEBUG, "wos", __LINE__, "wos_exec_limited", "run: %s\n", argv[0]);
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        prepareChild();
        if (maxFileBytes > 0) {
            struct rlimit limit {};
            limit.rlim_cur = limit.rlim_max = static_cast<rlim_t>(maxFileBytes);
            setrlimit(RLIMIT_FSIZE, &limit);
        }
        execvp(argv[0], const_cast<char* const*>(argv));
        _exit(127);
    }
    return waitChild(pid);
}

int platformShell(int flags, const char* cmd) {
    if (!cmd)
        return -1;
    if (flags & 1)
        wlog_log_f(WLOG_DEBUG, "wos", __LINE__, "wos_formsys", "run: %s\n", cmd);
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        prepareChild();
        execl("/bin/sh", "sh", "-c", cmd, static_cast<char*>(nullptr));
        _exit(127);
    }
    return waitChild(pid);
}

void wos_pk(const char* fmt, ...) {
    // Formatted here, written by the console's thread (console.h): every
    // line goes out whole and in order, and a request thread does not wait
    // for the console.
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (n < 0)
        return;
    std::string big;
    const char* out = text;
    if (static_cast<size_t>(n) >= sizeof text) {
        big.resize(static_cast<size_t>(n) + 1);
        va_start(ap, fmt);
        vsnprintf(&big[0], big.size(), fmt, ap);
        va_end(ap);
        out = big.c_str();
    }
    consoleWrite(out, static_cast<size_t>(n));
}

void wos_strlcpy(char* dst, const char* src, size_t size) {
    if (!dst || size == 0)
        return;
    size_t n = src ? strnlen(src, size - 1) : 0;
    if (n)
        memcpy(dst, src, n);
    dst[n] = '\0';
}

// Times and file offsets are 64-bit on every CPU (the build asks for them on
// 32-bit ones): a router sold today still runs after January 2038.
static_assert(sizeof(time_t) == 8, "time_t must be 64-bit (_TIME_BITS=64)");
static_assert(sizeof(off_t) == 8, "off_t must be 64-bit (_FILE_OFFSET_BITS=64)");

int platformParseInt(const char* text) {
    long long v = strtoll(text, nullptr, 10);
    return static_cast<int>(std::clamp<long long>(v, INT_MIN, INT_MAX));
}

long platformSecondMs() {
    static const long msPerSecond = [] {
        const char* v = getenv("WHTTPD_SECOND_MS");
        long ms = v ? atol(v) : 1000;
        return ms > 0 ? ms : 1000;
    }();
    return msPerSecond;
}

void wos_sleep(unsigned sec) {
    long total = static_cast<long>(sec) * platformSecondMs();
    timespec ts{total / 1000, (total % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) < 0 && errno == EINTR) {
    }
}

namespace {
std::mutex gLogMutex;

FILE* logStream() {
    static FILE* f = [] {
        const char* name = getenv("WLOG_FILE");
        FILE* out = name ? fopen(name, "a") : nullptr;
        return out ? out : stderr;
    }();
    return f;
}

int logThreshold() {
    static const int level = [] {
        const char* v = getenv("WLOG_LEVEL");
        return v ? atoi(v) : WLOG_INFO;
    }();
    return level;
}
}  // namespace

bool wlog_levelAllow(int level) {
    return level <= logThreshold();
}

void wlog_log_f(int level, const char* file, int line, const char* func, const char* fmt, ...) {
    if (!wlog_levelAllow(level))
        return;
    char text[2048];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    size_t n = strlen(text);
    const char* nl = (n > 0 && text[n - 1] == '\n') ? "" : "\n";
    std::lock_guard<std::mutex> lock(gLogMutex);
    FILE* out = logStream();
    fprintf(out, "<%d> %s:%d %s: %s%s", level, file ? file : "?", line, func ? func : "?", text,
            nl);
    fflush(out);
}

void wlog_syslog(int priority, const char* fmt, ...) {
    char text[2048];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    syslog(priority, "%s", text);
    size_t n = strlen(text);
    std::lock_guard<std::mutex> lock(gLogMutex);
    FILE* out = logStream();
    fprintf(out, "syslog<%d>: %s%s", priority, text, (n > 0 && text[n - 1] == '\n') ? "" : "\n");
    fflush(out);
}

bool vxUtilPasswordMatchesHash(const char* hash, const char* password) {
    if (!hash || !*hash || !password || !*password)
        return false;
    crypt_data data{};
    const char* out = crypt_r(password, hash, &data);
    return out && strcmp(out, hash) == 0;
}

void vxUtilAuthDummy(const char* password) {
    // A SHA-512 crypt hash of a random text, made once: checking a password
    // against it costs what checking a real account's does.
    static const std::string hash = [] {
        char salt[CRYPT_GENSALT_OUTPUT_SIZE];
        crypt_data data{};
        const char* out = crypt_gensalt_rn("$6$", 0, nullptr, 0, salt, sizeof salt)
                              ? crypt_r(salt, salt, &data)
                              : nullptr;
        return std::string(out && out[0] == '$' ? out : "$6$");
    }();
    vxUtilPasswordMatchesHash(hash.c_str(), password && *password ? password : "-");
}

int vxUtilAuthUserAccount(const char* user, const char* password) {
    // Every answer costs one password check: a user without a line in the
    // store is not answered sooner than one with a wrong password.
    if (!user || !*user) {
        vxUtilAuthDummy(password);
        return 1;
    }
    std::ifstream in(platformPath("/etc/shadow"));
    if (!in) {
        vxUtilAuthDummy(password);
        return 1;
    }
    std::string line;
    std::string prefix = std::string(user) + ":";
    while (std::getline(in, line)) {
        if (line.compare(0, prefix.size(), prefix) != 0)
            continue;
        std::string hash = line.substr(prefix.size());
        hash = hash.substr(0, hash.find(':'));
        if (hash.empty()) {
            vxUtilAuthDummy(password);
            return 2;
        }
        return vxUtilPasswordMatchesHash(hash.c_str(), password) ? 0 : 2;
    }
    vxUtilAuthDummy(password);
    return 1;
}

int vxUtilIGetBaseMACwithColon(char* buf, size_t size) {
    if (!buf || size < 18)
        return -1;
    std::string file = platformPath("/data/factory/device.json");
    json_object* doc = json_object_from_file(file.c_str());
    if (!doc)
        return -1;
    int ret = -1;
    json_object* mac = nullptr;
    if (json_object_object_get_ex(doc, "BaseMAC", &mac) &&
        json_object_is_type(mac, json_type_string)) {
        const char* s = json_object_get_string(mac);
        unsigned b[6];
        if (sscanf(s, "%2x:%2x:%2x:%2x:%2x:%2x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) == 6) {
            snprintf(buf, size, "%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2], b[3], b[4],
                     b[5]);
            ret = 0;
        }
    }
    json_object_put(doc);
    return ret;
}

void* vxUtilSortedArraySearch(const void* key, int low, int high,
                              int (*cmp)(const void* key, int index, void** row)) {
    while (low <= high) {
        int mid = low + (high - low) / 2;
        void* row = nullptr;
        int c = cmp(key, mid, &row);
        if (c == 0)
            return row;
        if (c < 0)
            high = mid - 1;
        else
            low = mid + 1;
    }
    return nullptr;
}
