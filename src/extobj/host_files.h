// Status files that other services write about the hosts: the access
// points' association lists and the DHCP server's leases.
#pragma once

#include <cstdint>
#include <string>

// The RSSI of a station in "/tmp/assoc_list.24g" or "/tmp/assoc_list.5g"
// (in that order), 0 when absent.  `middleOnly` compares only the 11
// characters from the fourth on (a mesh node's middle four octets); otherwise
// the whole address must be equal.  `mac` is upper-cased first.
int vxHostsAssocRssi(const std::string& mac, bool middleOnly);

// Whether address `a` lies in network `n` with mask `m` (dotted quads; a text
// that does not parse reads as 0).
bool vxHostsInSubnet(const char* a, const char* n, const char* m);

// What is left of a lease.  The lease file's first column is the up-time
// second of the host's last DHCP acknowledgement (the device's DHCP server
// counts leases in up-time, so that a change of the calendar clock moves no
// lease): the pool's lease time less the seconds since then, never below 0;
// an acknowledgement "in the future" (a file from before a restart) counts as
// just given.
int64_t vxHostsLeaseLeft(int64_t leaseTime, int64_t uptime, int64_t ackTime);
// The remaining DHCP lease of the host `mac` (address `ip`) as decimal text:
// the lease line by MAC (either case), the lease time of the DHCP pool whose
// network holds `ip`, the system's up-time.
std::string vxHostsLeaseTime(const std::string& mac, const std::string& ip);
