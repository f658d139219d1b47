// The HTTPS port's TLS: version 1.3, or 1.2 with an ephemeral key exchange
// and an AEAD cipher; every other family is refused in the handshake.
#include <gtest/gtest.h>

#include <string>

#include "fixture.h"
#include "raw_conn.h"

using namespace e2e;

namespace {

class TlsTest : public DaemonTest {
  protected:
    // The suite agreed on, or "" when the daemon refused the offer.
    std::string agreed(const TlsOffer& offer) {
        RawConn c;
        EXPECT_TRUE(c.connect(port));
        return c.handshake(offer) ? c.cipher() : "";
    }
};

TEST_F(TlsTest, OnlyForwardSecretAeadSuitesAreAgreed) {
    start();
    for (const char* suite :
         {"TLS_AES_128_GCM_SHA256", "TLS_AES_256_GCM_SHA384", "TLS_CHACHA20_POLY1305_SHA256"})
        EXPECT_EQ(suite, agreed({TLS1_3_VERSION, TLS1_3_VERSION, "", suite}));
    for (const char* suite : {"ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-RSA-AES256-GCM-SHA384",
                              "ECDHE-RSA-CHACHA20-POLY1305"})
        EXPECT_EQ(suite, agreed({TLS1_2_VERSION, TLS1_2_VERSION, suite, ""}));
    // Refused: static RSA key exchange (no forward secrecy), CBC with and
    // without an ephemeral key, finite-field Diffie-Hellman, and each
    // protocol before 1.2.
    for (const char* suite :
         {"AES128-SHA", "AES256-SHA256", "AES128-GCM-SHA256", "AES256-GCM-SHA384",
          "ECDHE-RSA-AES128-SHA", "ECDHE-RSA-AES256-SHA384", "DHE-RSA-AES128-GCM-SHA256",
          "DHE-RSA-CHACHA20-POLY1305", "DES-CBC3-SHA"})
        EXPECT_EQ("", agreed({TLS1_2_VERSION, TLS1_2_VERSION, suite, ""})) << suite;
    for (int version : {TLS1_VERSION, TLS1_1_VERSION})
        EXPECT_EQ("", agreed({version, version, "ALL", ""})) << std::hex << version;
}

}  // namespace
