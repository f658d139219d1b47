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

// Loads the Device table for this request thread, once; a locked database is
// tried again up to three times, a platform second apart.  The table stays
// with the thread until the request ends (vxHostsReleaseTable).
void vxDevscoutLoadDevices(void);
// A cell of a loaded Device row as text, or `fallback` when it is missing or
// empty.  Column 11: "0" counts as missing.  Column 17 (a node's JSON): its
// "FirmwareVersion" cut to 3 characters, or, when `fallback` is "2", its
// "NewfirmwareUpgradeState".
std::string vxDevscoutColumn(int row, int column, const char* fallback);
// The 2.4 GHz ("24G") or 5 GHz ("5G") channel of a loaded Device row: a mesh
// node's from DevFunc, another device's own when its band matches; "0".
std::string vxDevscoutChannel(int row, const char* band);
// Whether a loaded Device row is a mesh node ("L2Device").
bool vxDevscoutIsNode(int row);
