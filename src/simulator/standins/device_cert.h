// The device's HTTPS certificate as its provisioning makes it: a self-signed
// RSA-2048 pair, SHA-512, ten years, for the device's own names.
#pragma once

#include <string>

namespace standin {

// Writes a new matching pair to the certificate and key files (absolute
// device paths, below the device root): the key with mode 0600, each file
// whole or not at all.
bool makeDeviceCertificate(const char* certPath, const char* keyPath, std::string& err);

}  // namespace standin
