// libcurl for the firmware transfers, loaded when the first transfer starts.
//
// libcurl brings some twenty libraries (GnuTLS, Kerberos, LDAP, SSH, ...)
// whose relocated data is private memory of every process that maps them;
// the daemon uses libcurl only for the rare firmware check and upgrade, so
// it maps it only then and keeps it from that point on.
#pragma once

#include <curl/curl.h>

// The calls the firmware transfer makes.
struct FotaCurl {
    CURL* (*easyInit)();
    CURLcode (*easySetopt)(CURL*, CURLoption, ...);
    CURLcode (*easyPerform)(CURL*);
    CURLcode (*easyGetinfo)(CURL*, CURLINFO, ...);
    void (*easyCleanup)(CURL*);
};

// libcurl loaded and set up once (thread-safe); nullptr when the library or
// one of its calls cannot be found, with the reason logged.
const FotaCurl* wHttpFotaCurl();
