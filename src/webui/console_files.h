// The web console's files, served by the daemon on its HTTPS port beside
// the API: "/" answers the console's page, "/ui/NAME" the file NAME of the
// console's folder.  The folder is read once, at start-up: its regular files
// (no link, nothing hidden, nothing too deep or too long) are mapped and
// indexed by the path that names them, and a request is answered only when
// its path is one of them, as it is written: nothing a client writes (dots,
// escapes, NUL, links) can reach any other file.  Only GET and HEAD.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "http/cg_http.h"

struct WHttpConsoleFile {
    const char* data = nullptr;  // mapped, read-only
    size_t size = 0;
    const char* type = "";  // Content-Type
    std::string etag;       // "\"<hash of the content>\""
};

// The files of one folder, by request path ("/ui/js/api.js"; "/" is the page).
struct WHttpConsoleIndex {
    std::map<std::string, WHttpConsoleFile, std::less<>> files;
    std::string dir;
    ~WHttpConsoleIndex();
};

// Reads a folder into an index (nullptr when it cannot be read).
std::unique_ptr<WHttpConsoleIndex> wHttpConsoleLoad(const std::string& dir);
// The file a request's target names, or nullptr: the path up to any query,
// exactly as one of the index's.
const WHttpConsoleFile* wHttpConsoleLookup(const WHttpConsoleIndex& index, std::string_view target);

// Whether a request target is the console's: any that the API does not
// route ("v1/" after the first five characters) and that is not below
// "/api/" (another version of the API, which gets no answer at all).
bool wHttpConsoleOwns(const char* target);

// The daemon's console: the folder named by WHTTPD_CONSOLE_DIR, else the
// one installed beside the program (../share/whttpd/console), else the one
// of the source tree it was built in (../console).  Read at start-up.
void wHttpConsoleStart(void);
// Answers a request that the console owns, on the thread that read it.
void wHttpConsoleAnswer(CgHttpRequest* request);
