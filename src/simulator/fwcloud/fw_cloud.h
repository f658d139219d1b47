// The stand-in cloud firmware service: answers a device's firmware check
// with a meta document whose download URL it pre-signs, and serves the image
// archive only to a download whose signature and expiry hold.
//
// Its files live below the device root's "/srv/fwcloud" (the vendor's
// private image key, the built archives, "access.log" with one line per
// request).  Knobs (wcfgctl knob) pick how it answers:
//   cloud.check    available (default), none204, bad400, partial206, empty,
//                  nometa, same, error500, slow
//   cloud.image    ok (default), nocontent204, forbidden403, badimage, notzip,
//                  extra (a second member beside the image), symlink (the
//                  image member is a link to /dev/zero)
//   cloud.expires  seconds a download URL stays valid (default 3600)
//   cloud.sign     "tamper": issue URLs whose signature does not match
#pragma once

#include <string>

#include "simulator/fwcloud/sigv4.h"
#include "simulator/fwcloud/fwcloud_server.h"

namespace fwcloud {

// Prepares the service for URLs naming `host` ("127.0.0.1:18443"): a new
// signing key and the image archives.  False (with `err`) on failure.
bool init(const std::string& host, std::string& err);

// The answer to one request; `hostHeader` is the request's Host header.
Answer handle(const std::string& method, const std::string& target, const std::string& hostHeader);

// The catalogue (tests and the README): the newest version per firmware id.
constexpr const char* kLatestVersion = "V1.21(ABCD.8)C0";

}  // namespace fwcloud
