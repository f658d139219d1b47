// What an event carries: the object at its path as a GET of that path
// (first level only) answers a session of a given login group, with the same
// trimming, hidden parameters and encoding, so that an event never shows
// what a read would not.
#pragma once

#include <string>

// The data of a "change" or "add" event, {"path": P, "Object": O}, as JSON
// text on one line; "" when a session of `group` could not read P now (it
// is gone again, or is no object of the REST API).
std::string wHttpEventObjectData(const std::string& path, int group);
// {"path": P} of a "delete" event, and {"reason": R} of "resync" and "end".
std::string wHttpEventPathData(const std::string& path);
std::string wHttpEventReasonData(const char* reason);
