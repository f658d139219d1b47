// whttpctl: the private per-user state file.
#include "state.h"

#include "cli.h"
#include "fd.h"

#include <fcntl.h>
#include <sys/file.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace whttpctl {

namespace {

constexpr off_t kMaxState = 1 << 20;

std::string homeDirectory() {
    const char* home = getenv("HOME");
    if (home && *home)
        return home;
    passwd* pw = getpwuid(geteuid());
    return pw && pw->pw_dir ? pw->pw_dir : "";
}

// Creates `dir` and its missing parents; the last one private.
void makeDirectories(const std::string& dir) {
    for (size_t at = dir.find('/', 1); at != std::string::npos; at = dir.find('/', at + 1))
        mkdir(dir.substr(0, at).c_str(), 0700);
    mkdir(dir.c_str(), 0700);
}

// Why a file or directory of this user must not be trusted, or "".
std::string untrusted(const struct stat& st, bool isDir) {
    if (st.st_uid != geteuid())
        return "is owned by another user";
    if (isDir && (st.st_mode & 022))
        return "is writable by others";
    if (!isDir && (st.st_mode & 077))
        return "is accessible by others (needs mode 0600)";
    return "";
}

bool readAll(int fd, std::string& text) {
    char buf[8192];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        text.append(buf, static_cast<size_t>(n));
    }
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

// Whether a stored entry is usable as it is.
bool validEntry(json_object* entry) {
    json_object* key = nullptr;
    return json_object_is_type(entry, json_type_object) &&
           plausibleCookie(memberText(entry, "cookie")) &&
           json_object_object_get_ex(entry, "key", &key) && json_object_is_type(key, json_type_int);
}

}  // namespace

bool plausibleCookie(const std::string& cookie) {
    if (cookie.empty() || cookie.size() > 128)
        return false;
    for (unsigned char c : cookie) {
        if (!isalnum(c))
            return false;
    }
    return true;
}

std::string StateFile::defaultPath() {
    if (const char* p = getenv("WHTTPCTL_STATE"); p && *p)
        return p;
    if (const char* x = getenv("XDG_STATE_HOME"); x && *x == '/')
        return std::string(x) + "/whttpctl/session";
    return homeDirectory() + "/.local/state/whttpctl/session";
}

std::string StateFile::directory() const {
    size_t slash = path_.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path_.substr(0, slash);
}

// The directory decides who can replace the file: it must be this user's and
// writable by nobody else.
bool StateFile::checkDirectory(bool create, std::string& error) const {
    std::string dir = directory();
    if (create)
        makeDirectories(dir);
    struct stat st {};
    if (lstat(dir.c_str(), &st) != 0) {
        error = "state directory " + dir + ": " + strerror(errno);
        return false;
    }
    std::string why = S_ISDIR(st.st_mode) ? untrusted(st, true) : "is not a directory";
    if (!why.empty()) {
        error = "state directory " + dir + " " + why + "; refusing to use it";
        return false;
    }
    return true;
}

// A session key is good for one write: two runs at once would send the same
// key and one of them would be refused.  The lock makes them take turns.
int StateFile::lock(std::string& error) {
    if (!checkDirectory(true, error))
        return kState;
    std::string name = path_ + ".lock";
    lock_.reset(open(name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct stat st {};
    if (lock_.get() < 0 || fstat(lock_.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        error = "lock file " + name + ": " + (lock_.get() < 0 ? strerror(errno) : "not a file");
        return kState;
    }
    // Every run is bounded, so the lock comes free; a run that is stopped
    // must not stall the others for ever.
    // It is held only around requests, never through a prompt or a long wait.
    for (int i = 0; i < 1200; ++i) {
        if (flock(lock_.get(), LOCK_EX | LOCK_NB) == 0)
            return kOk;
        if (errno != EWOULDBLOCK && errno != EINTR) {
            error = "lock file " + name + ": " + strerror(errno);
            return kState;
        }
        usleep(50000);
    }
    lock_.reset(-1);
    error = "the session is busy: another whttpctl run has held " + name +
            " for a minute; try again once it has ended";
    return kBusy;
}

int StateFile::load(std::string& error) {
    if (int rc = lock(error))
        return rc;
    if (read(error))
        return kOk;
    unlock();
    return kState;
}

bool StateFile::read(std::string& error) {
    doc_.reset(json_object_new_object());
    // O_NOFOLLOW: a symbolic link planted in place of the file is refused;
    // O_NONBLOCK: a FIFO planted there cannot stall the open.
    Fd fd(open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0 && errno == ENOENT)
        return true;  // nothing stored yet
    if (fd.get() < 0) {
        error = "state file " + path_ + ": " +
                (errno == ELOOP ? std::string("is a symbolic link; refusing to use it")
                                : strerror(errno));
        return false;
    }
    struct stat st {};
    fstat(fd.get(), &st);
    std::string why = S_ISREG(st.st_mode) ? untrusted(st, false) : "is not a regular file";
    if (why.empty() && st.st_size > kMaxState)
        why = "is too large";
    if (!why.empty()) {
        error = "state file " + path_ + " " + why + "; refusing to use it";
        return false;
    }
    if (!checkDirectory(false, error))
        return false;
    std::string text;
    JsonPtr doc;
    if (!readAll(fd.get(), text) || !(doc = parseJson(text)) ||
        !json_object_is_type(doc.get(), json_type_object)) {
        error = "state file " + path_ + " is damaged; remove it and log in again";
        return false;
    }
    doc_ = std::move(doc);
    return true;
}

bool StateFile::save(std::string& error) {
    if (!checkDirectory(true, error))
        return false;
    std::string tmp = path_ + ".XXXXXX";
    // mkstemp creates the file with mode 0600, exclusively: nothing that
    // someone else prepared under that name is ever written into.
    Fd fd(mkostemp(tmp.data(), O_CLOEXEC));
    if (fd.get() < 0) {
        error = "state file " + tmp + ": " + strerror(errno);
        return false;
    }
    std::string text = json_object_to_json_string_ext(doc_.get(), JSON_C_TO_STRING_PLAIN);
    bool ok = fchmod(fd.get(), 0600) == 0 && writeAll(fd.get(), text + "\n");
    ok = close(fd.release()) == 0 && ok;
    if (!ok || rename(tmp.c_str(), path_.c_str()) != 0) {
        error = "state file " + path_ + ": " + strerror(errno);
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

bool StateFile::find(const std::string& url, SessionEntry& entry) const {
    json_object* e = nullptr;
    if (!doc_ || !json_object_object_get_ex(doc_.get(), url.c_str(), &e) || !validEntry(e))
        return false;
    json_object* key = nullptr;
    json_object_object_get_ex(e, "key", &key);
    entry.user = memberText(e, "user");
    entry.cookie = memberText(e, "cookie");
    entry.key = static_cast<long>(json_object_get_int64(key));
    return true;
}

void StateFile::put(const std::string& url, const SessionEntry& entry) {
    json_object* e = json_object_new_object();
    json_object_object_add(e, "user", json_object_new_string(entry.user.c_str()));
    json_object_object_add(e, "cookie", json_object_new_string(entry.cookie.c_str()));
    json_object_object_add(e, "key", json_object_new_int64(entry.key));
    json_object_object_add(doc_.get(), url.c_str(), e);
}

void StateFile::erase(const std::string& url) {
    json_object_object_del(doc_.get(), url.c_str());
}

}  // namespace whttpctl
