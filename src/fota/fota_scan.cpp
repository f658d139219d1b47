// Reading the cloud's meta file and cutting the software version, as the
// check needs them.  Both scans tokenise the text the way the firmware
// service's first clients did, and their quirks are relied upon: a value
// holding spaces gives only its first word, any token that begins with
// "Date" is the date key.
#include <cstdio>
#include <cstring>
#include <string>

#include "base/utf8.h"
#include "base/platform.h"
#include "fota/fota.h"

namespace {

// The image location's tokens: after "meta_file", the escaped keys
// ("imgurl\", "version\"), a ":\" token, then the value up to its escaped
// quote.
void takeEscapedValue(char** save, char* dst, size_t size) {
    if (!strtok_r(nullptr, "\", ", save))
        return;
    char* value = strtok_r(nullptr, "\", ", save);
    if (!value)
        return;
    char* inner = nullptr;
    wos_strlcpy(dst, strtok_r(value, "\"\\", &inner), size);
}

}  // namespace

bool wHttpFotaScanImage(const char* meta, FotaDescriptor* d) {
    std::string text = meta ? meta : "";
    char* save = nullptr;
    char* tok = strtok_r(text.data(), " {}\":,[]<!", &save);
    while (tok && strncmp(tok, "meta_file", 9) != 0)
        tok = strtok_r(nullptr, " {}\":,[]<!", &save);
    if (!tok)
        return false;
    while ((tok = strtok_r(nullptr, "\", ", &save))) {
        if (!strcmp(tok, "imgurl\\"))
            takeEscapedValue(&save, d->imgUrl, sizeof d->imgUrl);
        else if (!strcmp(tok, "version\\"))
            takeEscapedValue(&save, d->imgVersion, sizeof d->imgVersion);
    }
    return d->imgUrl[0] && d->imgVersion[0];
}

void wHttpFotaScanKeys(const char* meta, FotaDescriptor* d, FotaSummary* s) {
    char copy[1024];
    wos_strlcpy(copy, meta, utf8CutLength(meta, sizeof copy - 1) + 1);
    struct Row {
        const char* key;
        char* dst;
        size_t size;
    };
    const Row rows[] = {
        {"Expires", d->expires, sizeof d->expires},
        {"Credential", d->credential, sizeof d->credential},
        {"Signature", d->signature, sizeof d->signature},
        {"ReleaseDate", s->releaseDate, sizeof s->releaseDate},
        {"Date", d->date, sizeof d->date},
        {"FWSize", s->fwSize, sizeof s->fwSize},
        {"Description", s->description, sizeof s->description},
        {"ExFWVersion", s->exFwVersion, sizeof s->exFwVersion},
    };
    const char* delims = " {}\":,[]";
    char* save = nullptr;
    for (char* tok = strtok_r(copy, delims, &save); tok; tok = strtok_r(nullptr, delims, &save)) {
        for (const Row& row : rows) {
            if (strncmp(tok, row.key, strlen(row.key)) != 0)
                continue;
            char* value = strtok_r(nullptr, delims, &save);
            if (!value)
                return;
            // Cut where a character ends: the store takes only UTF-8 text.
            wos_strlcpy(row.dst, value, utf8CutLength(value, row.size - 1) + 1);
            if (row.dst == s->exFwVersion)
                wos_strlcpy(d->exFwVersion, value,
                            utf8CutLength(value, sizeof d->exFwVersion - 1) + 1);
            break;
        }
    }
}

void wHttpFotaSplitVersion(const char* version, std::string* fwidPart, std::string* versionPart,
                           char* code, size_t codeSize) {
    char fwid[64] = "", rest[64] = "";
    if (sscanf(version, "%*[^(](%63[^.].%63s", fwid, rest) == 2) {
        *fwidPart = std::string("&fwid=") + fwid;
        std::string part = "&version=";
        char* save = nullptr;
        for (char* p = strtok_r(rest, ".()_", &save); p; p = strtok_r(nullptr, ".()_", &save)) {
            part += p;
            // The daemon-wide code is never cleared: it keeps growing until full.
            size_t used = strlen(code);
            if (used + 1 < codeSize)
                wos_strlcpy(code + used, p, codeSize - used);
        }
        *versionPart = part.substr(0, 63);
        return;
    }
    // No "(": the pieces by number; a missing piece counts as empty.
    char copy[64];
    wos_strlcpy(copy, version, sizeof copy);
    const char* piece[6] = {"", "", "", "", "", ""};
    char* save = nullptr;
    int n = 0;
    for (char* p = strtok_r(copy, ".()_", &save); p && n < 6; p = strtok_r(nullptr, ".()_", &save))
        piece[n++] = p;
    *fwidPart = std::string("&fwid=") + piece[2];
    char part[64];
    if (n > 5) {
        snprintf(part, sizeof part, "&version=%s%s%s", piece[3], piece[4], piece[5]);
        snprintf(code, codeSize, "%s%s%s", piece[3], piece[4], piece[5]);
    } else {
        snprintf(part, sizeof part, "&version=%s%s", piece[3], piece[4]);
        snprintf(code, codeSize, "%s%s", piece[3], piece[4]);
    }
    *versionPart = part;
}
