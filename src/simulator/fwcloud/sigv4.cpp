// AWS Signature Version 4 query authentication.  The canonical request is
// GET, the path, the sorted and encoded query without the signature, the one
// signed header "host", and the payload hash "UNSIGNED-PAYLOAD".
#include "simulator/fwcloud/sigv4.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace sigv4 {
namespace {

const char* const kAlgorithm = "AWS4-HMAC-SHA256";
const long kMaxExpires = 604800;  // seven days, as the service allows
const long kClockSkew = 900;      // a request dated up to 15 minutes ahead

std::string hex(const unsigned char* data, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < size; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

std::string hmac(const std::string& key, const std::string& data) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(data.data()), data.size(), out, &len);
    return std::string(reinterpret_cast<char*>(out), len);
}

std::string scopeOf(const Key& key, const std::string& date8) {
    return date8 + "/" + key.region + "/" + key.service + "/aws4_request";
}

// The query without the signature, names and values encoded, sorted.
std::string canonicalQuery(const std::multimap<std::string, std::string>& params) {
    std::vector<std::pair<std::string, std::string>> enc;
    for (const auto& [name, value] : params) {
        if (name != "X-Amz-Signature")
            enc.emplace_back(uriEncode(name, false), uriEncode(value, false));
    }
    std::sort(enc.begin(), enc.end());
    std::string out;
    for (const auto& [name, value] : enc)
        out += (out.empty() ? "" : "&") + name + "=" + value;
    return out;
}

bool validDate(const std::string& d) {
    if (d.size() != 16 || d[8] != 'T' || d[15] != 'Z')
        return false;
    for (size_t i = 0; i < 15; ++i) {
        if (i != 8 && (d[i] < '0' || d[i] > '9'))
            return false;
    }
    return true;
}

time_t parseDate(const std::string& d) {
    struct tm tm {};
    tm.tm_year = atoi(d.substr(0, 4).c_str()) - 1900;
    tm.tm_mon = atoi(d.substr(4, 2).c_str()) - 1;
    tm.tm_mday = atoi(d.substr(6, 2).c_str());
    tm.tm_hour = atoi(d.substr(9, 2).c_str());
    tm.tm_min = atoi(d.substr(11, 2).c_str());
    tm.tm_sec = atoi(d.substr(13, 2).c_str());
    return timegm(&tm);
}

// The one value of a required parameter, or nullptr (absent or repeated).
const std::string* single(const std::multimap<std::string, std::string>& params, const char* name) {
    if (params.count(name) != 1)
        return nullptr;
    return &params.find(name)->second;
}

}  // namespace

bool parseQuery(const std::string& raw, std::multimap<std::string, std::string>& params) {
    size_t at = 0;
    while (at <= raw.size() && !raw.empty()) {
        size_t end = raw.find('&', at);
        std::string part = raw.substr(at, end == std::string::npos ? std::string::npos : end - at);
        size_t eq = part.find('=');
        std::string name, value;
        if (!uriDecode(part.substr(0, eq), name) ||
            !uriDecode(eq == std::string::npos ? "" : part.substr(eq + 1), value))
            return false;
        params.emplace(name, value);
        if (end == std::string::npos)
            break;
        at = end + 1;
    }
    return true;
}

std::string uriEncode(const std::string& text, bool keepSlash) {
    std::string out;
    for (unsigned char c : text) {
        if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' || (keepSlash && c == '/')) {
            out += static_cast<char>(c);
        } else {
            char esc[4];
            snprintf(esc, sizeof esc, "%%%02X", c);
            out += esc;
        }
    }
    return out;
}

bool uriDecode(const std::string& text, std::string& out) {
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size() || !isxdigit(static_cast<unsigned char>(text[i + 1])) ||
            !isxdigit(static_cast<unsigned char>(text[i + 2])))
            return false;
        out += static_cast<char>(strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
        i += 2;
    }
    return true;
}

std::string hexSha256(const std::string& data) {
    unsigned char md[32];
    unsigned int len = 0;
    EVP_Digest(data.data(), data.size(), md, &len, EVP_sha256(), nullptr);
    return hex(md, len);
}

std::string amzDate(time_t t) {
    struct tm tm {};
    gmtime_r(&t, &tm);
    char buf[20];
    strftime(buf, sizeof buf, "%Y%m%dT%H%M%SZ", &tm);
    return buf;
}

std::string canonicalRequest(const std::string& method, const std::string& path,
                             const std::string& canonicalQuery, const std::string& host) {
    return method + "\n" + uriEncode(path, true) + "\n" + canonicalQuery + "\nhost:" + host +
           "\n\nhost\nUNSIGNED-PAYLOAD";
}

std::string stringToSign(const std::string& amzDate, const std::string& scope,
                         const std::string& canonicalRequest) {
    return std::string(kAlgorithm) + "\n" + amzDate + "\n" + scope + "\n" +
           hexSha256(canonicalRequest);
}

std::string signature(const Key& key, const std::string& date8, const std::string& toSign) {
    std::string k = hmac("AWS4" + key.secret, date8);
    k = hmac(k, key.region);
    k = hmac(k, key.service);
    k = hmac(k, "aws4_request");
    std::string mac = hmac(k, toSign);
    return hex(reinterpret_cast<const unsigned char*>(mac.data()), mac.size());
}

Presigned presign(const Key& key, const std::string& host, const std::string& path, time_t when,
                  long expires) {
    Presigned p;
    p.amzDate = amzDate(when);
    std::string date8 = p.amzDate.substr(0, 8);
    p.credential = key.accessKeyId + "/" + scopeOf(key, date8);
    p.expires = std::to_string(expires);
    std::multimap<std::string, std::string> params = {
        {"X-Amz-Algorithm", kAlgorithm}, {"X-Amz-Credential", p.credential},
        {"X-Amz-Date", p.amzDate},       {"X-Amz-Expires", p.expires},
        {"X-Amz-SignedHeaders", "host"},
    };
    std::string query = canonicalQuery(params);
    p.signature = signature(
        key, date8,
        stringToSign(p.amzDate, scopeOf(key, date8), canonicalRequest("GET", path, query, host)));
    p.query = query + "&X-Amz-Signature=" + p.signature;
    return p;
}

std::string verify(const Key& key, const std::string& host, const std::string& path,
                   const std::string& rawQuery, time_t now) {
    std::multimap<std::string, std::string> params;
    if (!parseQuery(rawQuery, params))
        return "malformed query";
    const std::string* alg = single(params, "X-Amz-Algorithm");
    const std::string* cred = single(params, "X-Amz-Credential");
    const std::string* date = single(params, "X-Amz-Date");
    const std::string* exp = single(params, "X-Amz-Expires");
    const std::string* hdrs = single(params, "X-Amz-SignedHeaders");
    const std::string* sig = single(params, "X-Amz-Signature");
    if (!alg || !cred || !date || !exp || !hdrs || !sig)
        return "missing or repeated authentication parameter";
    if (*alg != kAlgorithm || *hdrs != "host")
        return "unsupported algorithm or signed headers";
    if (!validDate(*date) || *cred != key.accessKeyId + "/" + scopeOf(key, date->substr(0, 8)))
        return "bad date or credential";
    char* end = nullptr;
    long expires = strtol(exp->c_str(), &end, 10);
    if (exp->empty() || *end || expires < 1 || expires > kMaxExpires)
        return "bad expiry";
    time_t signedAt = parseDate(*date);
    if (now + kClockSkew < signedAt || now > signedAt + expires)
        return "expired";
    std::string date8 = date->substr(0, 8);
    std::string want =
        signature(key, date8,
                  stringToSign(*date, scopeOf(key, date8),
                               canonicalRequest("GET", path, canonicalQuery(params), host)));
    if (sig->size() != want.size() || CRYPTO_memcmp(sig->data(), want.data(), want.size()) != 0)
        return "signature does not match";
    return "";
}

}  // namespace sigv4
