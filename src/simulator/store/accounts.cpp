// Account names, password sealing and the device's password store.
#include "simulator/store/accounts.h"

#include <crypt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "base/platform.h"
#include "simulator/store/sqlite_db.h"
#include "device/wcfg.h"
#include "simulator/store/write_rules.h"

namespace wcfg {

namespace {

const char* const kAccountRdm = "RDM_OID_VX_LOG_CFG_GP_ACCOUNT";

struct AccountFields {
    int user, password, shadow;
};

AccountFields fieldsOf(const wdm::Object& o) {
    return {paramIndex(o, "Username"), paramIndex(o, "Password"), paramIndex(o, "shadow")};
}

// The crypt(3) hash of a "shadow" line ("name:$6$salt$hash:...").
std::string hashOfLine(const std::string& line) {
    size_t c = line.find(':');
    if (c == std::string::npos)
        return "";
    std::string hash = line.substr(c + 1);
    return hash.substr(0, hash.find(':'));
}

std::string newHash(const std::string& password) {
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    crypt_data data{};
    if (!crypt_gensalt_rn("$6$", 0, nullptr, 0, salt, sizeof salt))
        return "";
    const char* out = crypt_r(password.c_str(), salt, &data);
    return out && out[0] == '$' ? out : "";
}

// Whether another account than `key` is named `name`.
int nameTaken(Db& db, const wdm::Object& o, uint64_t key, const std::string& name, bool& taken) {
    taken = false;
    int user = paramIndex(o, "Username");
    bool ok = db.forEachRow(o.id, [&](int32_t, uint64_t k, const char* text) {
        Row row;
        if (k != key && rowFromText(o, text, row) && row[user].s == name)
            taken = true;
    });
    return ok ? WCFG_SUCCESS : WCFG_INTERNAL_ERROR;
}

}  // namespace

bool isAccountObject(const wdm::Object& o) {
    return o.rdm == kAccountRdm;
}

int sealAccount(Db& db, const wdm::Object& o, uint64_t key, const Row& before, Row& after) {
    AccountFields f = fieldsOf(o);
    const std::string& name = after[f.user].s;
    if (name.empty() && !after[f.password].s.empty())
        return WCFG_INVALID_PARAM_VALUE;  // a password needs an account name
    if (name != before[f.user].s) {
        if (!usernameAcceptable(name))
            return WCFG_INVALID_PARAM_VALUE;
        bool taken = false;
        if (int rc = nameTaken(db, o, key, name, taken))
            return rc;
        if (taken)
            return WCFG_REQUEST_REJECT;
    }
    std::string hash =
        after[f.password].s.empty() ? hashOfLine(after[f.shadow].s) : newHash(after[f.password].s);
    if (!after[f.password].s.empty() && hash.empty())
        return WCFG_INTERNAL_ERROR;
    after[f.shadow].s = hash.empty() ? "" : name + ":" + hash + ":19000:0:99999:7:::";
    after[f.password].s.clear();
    return WCFG_SUCCESS;
}

namespace {

bool passwordStoreText(Db& db, std::string& text) {
    const wdm::Object* o = wdm::model().byId(wdm::model().idOf(kAccountRdm));
    if (!o)
        return false;
    int shadow = paramIndex(*o, "shadow");
    text.clear();
    return db.forEachRow(o->id, [&](int32_t, uint64_t, const char* vals) {
        Row row;
        if (rowFromText(*o, vals, row) && !row[shadow].s.empty())
            text += row[shadow].s + "\n";
    });
}

std::string passwordStoreFile() {
    return platformPath("/etc/shadow");
}

// Whether the file holds `text` with mode 0600.
bool fileHolds(const std::string& file, const std::string& text) {
    struct stat st;
    if (stat(file.c_str(), &st) != 0 || (st.st_mode & 07777) != 0600)
        return false;
    std::ifstream in(file);
    std::stringstream old;
    old << in.rdbuf();
    return in && old.str() == text;
}

}  // namespace

bool passwordStoreCurrent(Db& db) {
    std::string text;
    return passwordStoreText(db, text) && fileHolds(passwordStoreFile(), text);
}

bool writePasswordStore(Db& db) {
    std::string text;
    if (!passwordStoreText(db, text))
        return false;
    std::string file = passwordStoreFile();
    if (fileHolds(file, text))
        return true;
    std::string dir = file.substr(0, file.rfind('/'));
    if (!platformMakeDirs(dir) || !platformReplaceFile(file, text, 0600)) {
        wlog_log_f(WLOG_ERR, "wcfg", __LINE__, __func__, "cannot write %s\n", file.c_str());
        return false;
    }
    return true;
}

}  // namespace wcfg
