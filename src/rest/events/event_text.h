// The text of event streams: the frames of server-sent events, and the
// checks of what a client sends when it opens a stream (the paths it
// watches and the Last-Event-ID it resumes from).  Free of any state, so
// that the fuzz targets reach them directly.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// One event: "id: N", "event: NAME", one "data:" line (JSON text without a
// line break), and the blank line that ends it.
std::string wHttpEventFrame(uint64_t id, std::string_view name, std::string_view data);
// A comment that keeps an idle stream's connection alive.
extern const char kWHttpKeepAliveFrame[];

// The Last-Event-ID a client resumes from: a decimal number; std::nullopt
// for anything else (which the stream treats as an id no longer kept).
std::optional<uint64_t> wHttpParseLastEventId(std::string_view text);

// Whether `path` may be watched as it is written: "Device." and then name
// segments of letters, digits, '_' and '-' (instance numbers included, with
// no leading zero), each ending in '.', at most 255 characters.  Whether the data model has such an
// object is checked apart.
bool wHttpWatchPathWellFormed(std::string_view path);
// Whether an object path lies in one of the watched subtrees (all of them
// when none is given): `watched` "Device.Hosts." covers
// "Device.Hosts.Host.4.".
bool wHttpPathWatched(const std::vector<std::string>& watched, std::string_view path);
