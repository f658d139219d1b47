// Firmware images: building (the cloud service's side, with the private
// key) and checking (the device's side, with the public key).
#include "simulator/standins/firmware_image.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "base/platform.h"
#include "device/wcfg.h"

namespace standin {
namespace {

struct PkeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
struct MdCtxFree {
    void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;

bool sha256(const char* data, size_t size, unsigned char out[32]) {
    unsigned int len = 0;
    return EVP_Digest(data, size, out, &len, EVP_sha256(), nullptr) == 1 && len == 32;
}

PkeyPtr readKey(const std::string& file, bool isPrivate) {
    FILE* f = fopen(file.c_str(), "r");
    if (!f)
        return nullptr;
    EVP_PKEY* key = isPrivate ? PEM_read_PrivateKey(f, nullptr, nullptr, nullptr)
                              : PEM_read_PUBKEY(f, nullptr, nullptr, nullptr);
    fclose(f);
    return PkeyPtr(key);
}

// Writes a PEM file through a temporary name with `mode`.
bool writeKey(const std::string& file, EVP_PKEY* key, bool isPrivate, mode_t mode) {
    std::string dir = file.substr(0, file.rfind('/'));
    if (!platformMakeDirs(dir))
        return false;
    std::string tmp = file + ".new";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        return false;
    FILE* f = fdopen(fd, "w");
    if (!f) {
        close(fd);
        return false;
    }
    bool ok = isPrivate ? PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr)
                        : PEM_write_PUBKEY(f, key);
    ok = fflush(f) == 0 && fsync(fileno(f)) == 0 && ok;
    ok = fclose(f) == 0 && ok;
    return ok && rename(tmp.c_str(), file.c_str()) == 0;
}

const off_t kMaxImage = 256LL << 20;

bool verifySignature(const std::string& img) {
    PkeyPtr key = readKey(platformPath(kImagePublicKey), false);
    MdCtxPtr ctx(EVP_MD_CTX_new());
    if (!key || !ctx || EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) != 1)
        return false;
    size_t signedSize = img.size() - kImageSignatureSize;
    return EVP_DigestVerify(ctx.get(),
                            reinterpret_cast<const unsigned char*>(img.data() + signedSize),
                            kImageSignatureSize, reinterpret_cast<const unsigned char*>(img.data()),
                            signedSize) == 1;
}

// Header fields: length and digest of the body, then the signature.
bool soundImage(const std::string& img) {
    if (img.size() <= kImageHeaderSize + kImageSignatureSize || img.compare(0, 8, kImageMagic) != 0)
        return false;
    uint64_t n = 0;
    for (int i = 0; i < 8; ++i)
        n |= static_cast<uint64_t>(static_cast<unsigned char>(img[56 + i])) << (8 * i);
    if (n != img.size() - kImageHeaderSize - kImageSignatureSize)
        return false;
    unsigned char digest[32];
    if (!sha256(img.data() + kImageHeaderSize, n, digest) || memcmp(digest, &img[64], 32) != 0)
        return false;
    return verifySignature(img);
}

}  // namespace

bool createImageKeys() {
    PkeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    return key && writeKey(platformPath(kImagePrivateKey), key.get(), true, 0600) &&
           writeKey(platformPath(kImagePublicKey), key.get(), false, 0644);
}

std::string makeImage(const std::string& model, const std::string& version, const std::string& body,
                      const std::string& privateKeyFile) {
    PkeyPtr key =
        readKey(privateKeyFile.empty() ? platformPath(kImagePrivateKey) : privateKeyFile, true);
    MdCtxPtr ctx(EVP_MD_CTX_new());
    if (!key || !ctx || EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) != 1)
        return "";
    std::string img(kImageHeaderSize, '\0');
    memcpy(&img[0], kImageMagic, 8);
    memcpy(&img[8], model.data(), std::min<size_t>(model.size(), 15));
    memcpy(&img[24], version.data(), std::min<size_t>(version.size(), 31));
    uint64_t n = body.size();
    for (int i = 0; i < 8; ++i)
        img[56 + i] = static_cast<char>(n >> (8 * i));
    if (!sha256(body.data(), body.size(), reinterpret_cast<unsigned char*>(&img[64])))
        return "";
    img += body;
    unsigned char sig[kImageSignatureSize];
    size_t sigLen = sizeof sig;
    if (EVP_DigestSign(ctx.get(), sig, &sigLen, reinterpret_cast<const unsigned char*>(img.data()),
                       img.size()) != 1 ||
        sigLen != sizeof sig)
        return "";
    return img.append(reinterpret_cast<const char*>(sig), sigLen);
}

bool readImageFile(const std::string& file, std::string& img) {
    // Not through a link, not a device or a pipe (an unpacked archive may
    // hold either), and of a size an image can have.
    int fd = open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat st {};
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxImage;
    if (ok) {
        img.resize(static_cast<size_t>(st.st_size));
        size_t got = 0;
        while (ok && got < img.size()) {
            ssize_t n = read(fd, &img[got], img.size() - got);
            ok = n > 0;
            got += ok ? static_cast<size_t>(n) : 0;
        }
    }
    close(fd);
    return ok;
}

int checkImage(const std::string& file, const std::string& model, std::string* version) {
    std::string img;
    if (!readImageFile(file, img))
        return WCFG_INVALID_IMAGE;
    return checkImageBytes(img, model, version);
}

int checkImageBytes(const std::string& img, const std::string& model, std::string* version) {
    if (model.empty() || !soundImage(img))
        return WCFG_INVALID_IMAGE;
    if (std::string(img.c_str() + 8, strnlen(img.c_str() + 8, 16)) != model)
        return WCFG_INVALID_IMAGE;
    if (version)
        *version = std::string(img.c_str() + 24, strnlen(img.c_str() + 24, 32));
    return WCFG_SUCCESS;
}

}  // namespace standin
