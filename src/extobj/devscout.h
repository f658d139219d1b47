// The mesh host-probe database ("/tmp/devscout.db"), opened once at start-up
// and shared by the request threads (SQLite serialises its use): lookups by
// MAC address, always with bound parameters, never with the MAC pasted into
// the query text.
#pragma once

#include <string>

// The AL MAC of the mesh node that owns the interface `intfMac` (table
// SubIntf), at most 255 characters; "" when none (or no database).
std::string vxDevscoutAlMacOf(const std::string& intfMac);
// The 2.4 GHz ("24G") or 5 GHz ("5G") channel of the mesh node `alMac`
// (table DevFunc), "0" when none.
std::string vxDevscoutNodeChannel(const std::string& alMac, const char* band);
