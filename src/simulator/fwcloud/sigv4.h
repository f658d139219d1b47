// AWS Signature Version 4 query authentication (pre-signed URLs): what the
// cloud firmware service signs its download URLs with and checks them by.
// HMAC-SHA256 and SHA-256 come from OpenSSL.
#pragma once

#include <ctime>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace sigv4 {

// The signer's identity and scope.
struct Key {
    std::string accessKeyId;
    std::string secret;
    std::string region = "us-east-1";
    std::string service = "s3";
};

// One pre-signed GET of `host` + `path`, signed over the "host" header.
struct Presigned {
    std::string amzDate;     // "20130524T000000Z"
    std::string credential;  // "AKID/20130524/us-east-1/s3/aws4_request" (not encoded)
    std::string expires;     // seconds, as text
    std::string signature;   // lower-case hex
    std::string query;       // the whole query string, signature last
};

// RFC 3986 encoding as the signature wants it: unreserved characters stay,
// everything else is %XX (upper case); "/" stays when `keepSlash`.
std::string uriEncode(const std::string& text, bool keepSlash);
// Decodes %XX; false on a malformed escape.
bool uriDecode(const std::string& text, std::string& out);
// Splits a raw query string into decoded names and values (a name without
// "=" has the value ""); false on a malformed escape.
bool parseQuery(const std::string& raw, std::multimap<std::string, std::string>& params);
std::string hexSha256(const std::string& data);
// "YYYYMMDDTHHMMSSZ" of a calendar time (UTC).
std::string amzDate(time_t t);

std::string canonicalRequest(const std::string& method, const std::string& path,
                             const std::string& canonicalQuery, const std::string& host);
std::string stringToSign(const std::string& amzDate, const std::string& scope,
                         const std::string& canonicalRequest);
std::string signature(const Key& key, const std::string& date8, const std::string& stringToSign);

// Signs a GET of `path` on `host` valid for `expires` seconds from `when`.
Presigned presign(const Key& key, const std::string& host, const std::string& path, time_t when,
                  long expires);

// Checks a request for `path` on `host` with its raw query string at `now`.
// Returns "" when it is authentic and unexpired, else the reason.
std::string verify(const Key& key, const std::string& host, const std::string& path,
                   const std::string& rawQuery, time_t now);

}  // namespace sigv4
