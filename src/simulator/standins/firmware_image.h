// The virtual router's firmware images and the vendor's image key.
//
// An image is "OLVFWIMG", the model (16 bytes, NUL-padded), the version (32
// bytes, NUL-padded), the body length (8 bytes, little-endian), the SHA-256
// of the body (32 bytes), the body, and an Ed25519 signature (64 bytes) of
// everything before it made with the vendor's private image key.
//
// Provisioning creates the key pair as a vendor would: the private half goes
// to the cloud firmware service's directory, the public half to the device,
// which accepts no image that the key did not sign.
#pragma once

#include <string>

namespace standin {

constexpr const char* kImageMagic = "OLVFWIMG";
constexpr size_t kImageHeaderSize = 96;
constexpr size_t kImageSignatureSize = 64;

// Device paths (below the device root) of the two halves.
constexpr const char* kImagePublicKey = "/etc/firmware/vendor_image_key.pub";
constexpr const char* kImagePrivateKey = "/srv/fwcloud/vendor_image_key.pem";

// Creates a new key pair (private half mode 0600); false on failure.
bool createImageKeys();

// A signed image, or "" when the private key cannot be read or used.
// `privateKeyFile` is a host path; empty means the device root's.
std::string makeImage(const std::string& model, const std::string& version, const std::string& body,
                      const std::string& privateKeyFile = "");

// 0 when `file` is an image for `model` whose digest and signature hold
// against the device's public key, else WCFG_INVALID_IMAGE; the image's
// version goes to `version`.
// An empty model matches nothing.
int checkImage(const std::string& file, const std::string& model, std::string* version);
// The same for an image already read; readImageFile reads a regular file
// (never through a link) of a plausible size whole.
int checkImageBytes(const std::string& img, const std::string& model, std::string* version);
bool readImageFile(const std::string& file, std::string& img);

}  // namespace standin
