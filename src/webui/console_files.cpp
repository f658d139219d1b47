// The web console's files: see console_files.h.
#include "webui/console_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/log.h"

namespace {

// What the folder may hold: how deep, how long a name, how large a file and
// all of them (the console is a few hundred kilobytes).
constexpr int kMaxDepth = 4;
constexpr size_t kMaxPath = 200;
constexpr off_t kMaxFile = 1 << 20;
constexpr size_t kMaxTotal = 8u << 20;
constexpr char kFolder[] = "/ui/";

// The types served, by the name's ending; a file of any other kind is left
// out of the index.
const struct {
    const char* ending;
    const char* type;
} kTypes[] = {
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".svg", "image/svg+xml"},
    {".png", "image/png"},
    {".ico", "image/x-icon"},
    {".json", "application/json"},
    {".txt", "text/plain; charset=utf-8"},
    {".woff2", "font/woff2"},
};

const char* typeOf(const std::string& name) {
    for (const auto& t : kTypes) {
        size_t n = strlen(t.ending);
        if (name.size() > n && name.compare(name.size() - n, n, t.ending) == 0)
            return t.type;
    }
    return nullptr;
}

// Names of letters, digits, '.', '_' and '-', not beginning with a dot.
bool plainName(const char* name) {
    if (!*name || *name == '.')
        return false;
    for (const char* c = name; *c; ++c)
        if (!(isalnum(static_cast<unsigned char>(*c)) || *c == '.' || *c == '_' || *c == '-'))
            return false;
    return true;
}

std::string etagOf(const char* data, size_t size) {
    uint64_t h = 1469598103934665603ull;  // FNV-1a
    for (size_t i = 0; i < size; ++i) {
        h ^= static_cast<unsigned char>(data[i]);
        h *= 1099511628211ull;
    }
    char text[24];
    snprintf(text, sizeof text, "\"%016llx\"", static_cast<unsigned long long>(h));
    return text;
}

struct Loader {
    WHttpConsoleIndex& index;
    size_t total = 0;

    // Maps one regular file (never through a link) into the index.
    void file(int dirFd, const char* name, const std::string& path) {
        // A path that the API routes (its "v1/" after five characters) is
        // the API's, never a file's.
        if (!wHttpConsoleOwns(path.c_str()))
            return;
        const char* type = typeOf(name);
        int fd = type ? openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC) : -1;
        if (fd < 0)
            return;
        struct stat st;
        if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxFile &&
            total + static_cast<size_t>(st.st_size) <= kMaxTotal) {
            WHttpConsoleFile f;
            f.size = static_cast<size_t>(st.st_size);
            void* m = f.size ? mmap(nullptr, f.size, PROT_READ, MAP_PRIVATE, fd, 0) : nullptr;
            if (m != MAP_FAILED) {
                f.data = static_cast<const char*>(m);
                f.type = type;
                f.etag = etagOf(f.data, f.size);
                total += f.size;
                index.files.emplace(path, std::move(f));
            }
        }
        close(fd);
    }

    // Walks one folder: its plain names, links and hidden ones left out.
    void folder(int dirFd, const std::string& prefix, int depth) {
        DIR* d = fdopendir(dirFd);
        if (!d) {
            close(dirFd);
            return;
        }
        while (dirent* e = readdir(d)) {
            std::string path = prefix + e->d_name;
            if (!plainName(e->d_name) || path.size() > kMaxPath)
                continue;
            struct stat st;
            if (fstatat(dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            if (S_ISREG(st.st_mode)) {
                file(dirfd(d), e->d_name, path);
            } else if (S_ISDIR(st.st_mode) && depth < kMaxDepth) {
                int sub =
                    openat(dirfd(d), e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                if (sub >= 0)
                    folder(sub, path + "/", depth + 1);
            }
        }
        closedir(d);
    }
};

}  // namespace

WHttpConsoleIndex::~WHttpConsoleIndex() {
    for (auto& [path, f] : files)
        if (f.data)
            munmap(const_cast<char*>(f.data), f.size);
}

std::unique_ptr<WHttpConsoleIndex> wHttpConsoleLoad(const std::string& dir) {
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    auto index = std::make_unique<WHttpConsoleIndex>();
    index->dir = dir;
    Loader{*index}.folder(fd, kFolder, 0);
    return index;
}

const WHttpConsoleFile* wHttpConsoleLookup(const WHttpConsoleIndex& index,
                                           std::string_view target) {
    std::string_view path = target.substr(0, target.find('?'));
    if (path == "/")
        path = "/ui/index.html";
    auto it = index.files.find(path);
    return it == index.files.end() ? nullptr : &it->second;
}

bool wHttpConsoleOwns(const char* target) {
    if (!target)
        return false;
    size_t n = strlen(target);
    if (n >= 8 && strncmp(target + 5, "v1/", 3) == 0)
        return false;  // the API's, whatever its first five characters
    return strncmp(target, "/api/", 5) != 0;
}
