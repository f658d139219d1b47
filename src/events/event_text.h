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
// An event that is no change of the device ("end", "busy"): no id, so that
// a client's Last-Event-ID stays where its changes left it.
std::string wHttpEventNotice(std::string_view name, std::string_view data);
// The stream's position without an event: a client's Last-Event-ID moves
// to `id` (a block with an id and no data dispatches nothing).
std::string wHttpEventPosition(uint64_t id);
// How long a client waits before it connects again ("retry:", a line that
// goes before the first block of a stream).
std::string wHttpEventRetry(int ms);
// A comment that keeps an idle stream's connection alive; with a position
// when the stream has moved on since its last id.
extern const char kWHttpKeepAliveFrame[];
std::string wHttpEventKeepAlive(uint64_t id);
// A reconnection time of `baseMs` to twice that, drawn anew each time, so
// that clients turned away (or cut off) together do not come back together.
int wHttpEventRetryMs(int baseMs);

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
