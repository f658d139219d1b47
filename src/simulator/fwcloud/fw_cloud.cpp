// The stand-in cloud firmware service's answers.  The catalogue knows one
// firmware line (id "ABCD"): 7C0 (the factory version) and 8C0 (the newest).
#include "simulator/fwcloud/fw_cloud.h"

#include <openssl/rand.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>

#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/standins/firmware_image.h"
#include "simulator/standins/knobs.h"

namespace fwcloud {
namespace {

const char* const kDir = "/srv/fwcloud";
const char* const kModel = "NX5150";
const char* const kImagePath = "/fw/NX5150/firmwareImg-V1.21-ABCD.8-C0.zip";

struct Release {
    const char* code;
    const char* version;
    const char* date;
    const char* description;
};
const Release kCatalogue[] = {
    {"7C0", "V1.20(ABCD.7)C0", "2024-02-01", "Initial release"},
    {"8C0", kLatestVersion, "2024-05-01", "Security fixes"},
};

std::mutex gMutex;
sigv4::Key gKey;
std::string gHost;
// The archives served, read once at start-up (never changed afterwards).
std::map<std::string, std::string> gArchives;

std::string dirPath(const std::string& name) {
    return platformPath(kDir) + "/" + name;
}

std::string randomText(const char* alphabet, size_t n) {
    std::string out;
    size_t k = strlen(alphabet);
    while (out.size() < n) {
        unsigned char b = 0;
        if (RAND_bytes(&b, 1) != 1)
            abort();
        if (b < 256 - 256 % k)
            out += alphabet[b % k];
    }
    return out;
}

// Orders version codes such as "7C0" and "12C0": the number first.
int compareCodes(const std::string& a, const std::string& b) {
    long na = strtol(a.c_str(), nullptr, 10), nb = strtol(b.c_str(), nullptr, 10);
    if (na != nb)
        return na < nb ? -1 : 1;
    return a.compare(b);
}

const Release* releaseOf(const std::string& code) {
    for (const Release& r : kCatalogue) {
        if (code == r.code)
            return &r;
    }
    return nullptr;
}

// The first value of each query parameter ({} for a malformed query).
std::map<std::string, std::string> parseQuery(const std::string& query) {
    std::multimap<std::string, std::string> all;
    if (!sigv4::parseQuery(query, all))
        return {};
    return std::map<std::string, std::string>(all.begin(), all.end());
}

// The meta document: "meta_file" is a JSON text of its own; the signing and
// summary keys are top-level members within the first 1024 bytes.
std::string metaDocument(const Release& offer) {
    std::lock_guard<std::mutex> lock(gMutex);
    long expires = standin::knobNumber("cloud.expires", 3600);
    sigv4::Presigned p = sigv4::presign(gKey, gHost, kImagePath, time(nullptr), expires);
    if (standin::knob("cloud.sign", "") == "tamper")
        p.signature[0] = p.signature[0] == '0' ? '1' : '0';
    JsonPtr inner(json_object_new_object());
    std::string url = "https://" + gHost + kImagePath;
    json_object_object_add(inner.get(), "imgurl", json_object_new_string(url.c_str()));
    json_object_object_add(inner.get(), "version", json_object_new_string(offer.version));
    const int flags = JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE;
    JsonPtr doc(json_object_new_object());
    auto add = [&](const char* k, const std::string& v) {
        json_object_object_add(doc.get(), k, json_object_new_string(v.c_str()));
    };
    add("meta_file", json_object_to_json_string_ext(inner.get(), flags));
    add("Expires", p.expires);
    add("Credential", sigv4::uriEncode(p.credential, false));
    add("Date", p.amzDate);
    add("Signature", p.signature);
    add("ReleaseDate", offer.date);
    add("FWSize", "4160");
    add("Description", offer.description);
    add("ExFWVersion", offer.version);
    return json_object_to_json_string_ext(doc.get(), flags);
}

Answer check(const std::string& query) {
    std::map<std::string, std::string> q = parseQuery(query);
    Answer a;
    if (!q.count("auth_code") || q["auth_code"].empty() || q["fwid"] != "ABCD")
        return a.status = 400, a;
    std::string mode = standin::knob("cloud.check", "available");
    const Release& latest = kCatalogue[1];
    const Release* offer = &latest;
    if (mode == "same") {
        offer = releaseOf(q["version"]);
        if (!offer)
            offer = &latest;
    } else if (mode == "none204" ||
               (mode == "available" && compareCodes(q["version"], latest.code) >= 0)) {
        return a.status = 204, a;
    }
    if (mode == "bad400" || mode == "error500")
        return a.status = mode == "bad400" ? 400 : 500, a;
    if (mode == "empty")
        return a;
    if (mode == "nometa")
        return a.body =
                   "{\"status\":\"ok\",\"ExFWVersion\":\"" + std::string(latest.version) + "\"}",
               a;
    a.body = metaDocument(*offer);
    if (mode == "partial206")
        a.status = 206;
    if (mode == "slow")
        a.trickleMs = 400;
    return a;
}

Answer image(const std::string& path, const std::string& query, const std::string& host) {
    Answer a;
    a.contentType = "application/zip";
    if (path != kImagePath)
        return a.status = 404, a;
    std::string why;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        why = sigv4::verify(gKey, host, path, query, time(nullptr));
    }
    std::string mode = standin::knob("cloud.image", "ok");
    if (!why.empty() || mode == "forbidden403") {
        a.contentType = "application/xml";
        a.body = "<Error><Code>AccessDenied</Code><Message>" + (why.empty() ? "refused" : why) +
                 "</Message></Error>";
        return a.status = 403, a;
    }
    if (mode == "nocontent204")
        return a.status = 204, a;
    const char* file = mode == "badimage"  ? "bad.zip"
                       : mode == "notzip"  ? "notzip.zip"
                       : mode == "extra"   ? "extra.zip"
                       : mode == "symlink" ? "link.zip"
                                           : "ok.zip";
    a.body = gArchives.at(file);
    return a;
}

// Zips `image` as "firmwareImg.bin" into `archive` (the zip tool); `plant`
// adds a second member, as a tampered archive would.
bool zipImage(const std::string& image, const std::string& archive, std::string& err,
              bool plant = false) {
    std::string work = dirPath("work");
    if (!platformMakeDirs(work))
        return err = "cannot create " + work, false;
    std::string bin = work + "/firmwareImg.bin";
    std::ofstream(bin, std::ios::binary | std::ios::trunc) << image;
    std::string extra = work + "/planted.txt";
    if (plant)
        std::ofstream(extra, std::ios::trunc) << "planted by the archive\n";
    unlink(archive.c_str());
    const char* argv[] = {
        "zip",  "-q", "-j", "-X", archive.c_str(), bin.c_str(), plant ? extra.c_str() : nullptr,
        nullptr};
    if (platformExec(0, argv, 0) != 0)
        return err = "zip failed for " + archive, false;
    unlink(bin.c_str());
    if (plant)
        unlink(extra.c_str());
    return true;
}

// An archive whose "firmwareImg.bin" is a symbolic link to /dev/zero: an
// unpacker that follows it reads for ever.
bool zipLink(const std::string& archive, std::string& err) {
    std::string bin = dirPath("work") + "/firmwareImg.bin";
    unlink(bin.c_str());
    if (symlink("/dev/zero", bin.c_str()) != 0)
        return err = "cannot make " + bin, false;
    unlink(archive.c_str());
    const char* argv[] = {"zip", "-q", "-j", "-X", "-y", archive.c_str(), bin.c_str(), nullptr};
    bool ok = platformExec(0, argv, 0) == 0;
    unlink(bin.c_str());
    return ok || (err = "zip failed for " + archive, false);
}

}  // namespace

bool init(const std::string& host, std::string& err) {
    gHost = host;
    gKey.accessKeyId = "AKIA" + randomText("ABCDEFGHIJKLMNOPQRSTUVWXYZ234567", 16);
    gKey.secret =
        randomText("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/", 40);
    std::string body = "OLVEX firmware " + std::string(kLatestVersion) + "\n";
    for (int i = 0; i < 4096; ++i)
        body += static_cast<char>('a' + i % 26);
    std::string img = standin::makeImage(kModel, kLatestVersion, body);
    if (img.empty())
        return err = "no vendor image key below the device root (run wcfgctl init)", false;
    std::string bad = img;
    bad.back() ^= 1;  // the signature no longer holds
    if (!zipImage(img, dirPath("ok.zip"), err) || !zipImage(bad, dirPath("bad.zip"), err) ||
        !zipImage(img, dirPath("extra.zip"), err, true) || !zipLink(dirPath("link.zip"), err))
        return false;
    std::ofstream(dirPath("notzip.zip"), std::ios::binary | std::ios::trunc)
        << "This is not a zip archive.\n";
    for (const char* name : {"ok.zip", "bad.zip", "extra.zip", "link.zip", "notzip.zip"}) {
        std::ifstream in(dirPath(name), std::ios::binary);
        gArchives[name].assign(std::istreambuf_iterator<char>(in),
                               std::istreambuf_iterator<char>());
    }
    return true;
}

Answer handle(const std::string& method, const std::string& target, const std::string& hostHeader) {
    size_t q = target.find('?');
    std::string path;
    if (!sigv4::uriDecode(target.substr(0, q), path))
        path.clear();
    std::string query = q == std::string::npos ? "" : target.substr(q + 1);
    Answer a;
    if (method != "GET")
        a.status = 405;
    else if (path == "/check")
        a = check(query);
    else if (path.compare(0, 4, "/fw/") == 0)
        a = image(path, query, hostHeader);
    else
        a.status = 404;
    std::lock_guard<std::mutex> lock(gMutex);
    std::ofstream(dirPath("access.log"), std::ios::app)
        << method << " " << target << " " << a.status << "\n";
    return a;
}

}  // namespace fwcloud
