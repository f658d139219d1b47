// Access restriction: whether an account may use the HTTP interface from the
// caller's address.  Callers inside a trust domain count as local; for them
// the account's own privileges decide, for anyone else the group's as well.
#pragma once

#include "http/cg_http.h"

// 1 allowed, 0 refused.
int wHttpCheckAccessPermission(CgHttpRequest* request, const char* user);
// 2 (IPv4) or 10 (IPv6) for an address text; -1 when it is neither.
int wHttpGetAddrFamily(const char* addr);
// 1 when `addr` lies inside `ruleAddr`/`prefix`, else 0.  The prefix text is
// read as a number: a dotted mask or an empty text makes an IPv4 rule match
// every IPv4 address; an empty text is a /128 for IPv6.
int wHttpIsAddrInPrefix(const char* ruleAddr, const char* prefix, const char* addr);
