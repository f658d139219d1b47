// Made in process with libcrypto rather than through the openssl tool: the
// same kind of pair the daemon would make for itself, without a shell and in
// a fraction of the time of the daemon's certificate wait.
#include "simulator/standins/device_cert.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>

#include "base/platform.h"

namespace standin {
namespace {

struct PkeyFree {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct X509Free {
    void operator()(X509* p) const { X509_free(p); }
};
struct BioFree {
    void operator()(BIO* b) const { BIO_free(b); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using BioPtr = std::unique_ptr<BIO, BioFree>;

const long kValidSeconds = 3650L * 24 * 3600;

bool addName(X509_NAME* name, const char* field, const char* value) {
    return X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC,
                                      reinterpret_cast<const unsigned char*>(value), -1, -1,
                                      0) == 1;
}

bool addExtension(X509* cert, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    bool ok = ext && X509_add_ext(cert, ext, -1) == 1;
    X509_EXTENSION_free(ext);
    return ok;
}

// A random positive 63-bit serial, so that two devices (or two pairs of one
// device) never share one.
bool setSerial(X509* cert) {
    BIGNUM* bn = BN_new();
    bool ok = bn && BN_rand(bn, 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
              BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert)) != nullptr;
    BN_free(bn);
    return ok;
}

X509Ptr selfSigned(EVP_PKEY* key) {
    X509Ptr cert(X509_new());
    if (!cert || X509_set_version(cert.get(), 2) != 1 || !setSerial(cert.get()))
        return nullptr;
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValidSeconds);
    X509_NAME* name = X509_get_subject_name(cert.get());
    bool ok = addName(name, "C", "US") && addName(name, "O", "OLVEX") &&
              addName(name, "CN", "NX5150") && X509_set_issuer_name(cert.get(), name) == 1 &&
              X509_set_pubkey(cert.get(), key) == 1 &&
              addExtension(cert.get(), NID_basic_constraints, "critical,CA:true") &&
              addExtension(cert.get(), NID_subject_key_identifier, "hash") &&
              addExtension(cert.get(), NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1") &&
              X509_sign(cert.get(), key, EVP_sha512()) > 0;
    return ok ? std::move(cert) : nullptr;
}

// The PEM text that `write` puts into a memory buffer ("" on failure).
template <typename Write>
std::string pemText(Write write) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    char* data = nullptr;
    if (!bio || write(bio.get()) != 1)
        return "";
    long n = BIO_get_mem_data(bio.get(), &data);
    return n > 0 ? std::string(data, static_cast<size_t>(n)) : "";
}

}  // namespace

bool makeDeviceCertificate(const char* certPath, const char* keyPath, std::string& err) {
    PkeyPtr key(EVP_RSA_gen(2048));
    if (!key)
        return err = "cannot generate the certificate's RSA key", false;
    X509Ptr cert = selfSigned(key.get());
    if (!cert)
        return err = "cannot make the self-signed certificate", false;
    // The key is never more open than 0600, not even for a moment; each
    // file is whole or absent.
    std::string keyText = pemText([&](BIO* b) {
        return PEM_write_bio_PrivateKey(b, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    std::string certText = pemText([&](BIO* b) { return PEM_write_bio_X509(b, cert.get()); });
    bool ok = !keyText.empty() && !certText.empty() &&
              platformReplaceFile(platformPath(keyPath), keyText, 0600) &&
              platformReplaceFile(platformPath(certPath), certText, 0644);
    if (!ok)
        err = "cannot write the certificate pair below " + platformPath("/data/CA");
    return ok;
}

}  // namespace standin
