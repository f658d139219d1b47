// Platform utilities: device-root paths, shell commands, console output, and
// the small vxUtil helpers.  The levelled log is in log.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/log.h"

// The device root: every fixed file name of the daemon and of its platform
// lives below the directory named by WHTTPD_ROOT (default "/").
const std::string& platformRoot();
// Maps an absolute device path ("/tmp/devscout.db") below the device root.
std::string platformPath(const char* absPath);
// Directory of the stand-in shell tools, put first on PATH by platformInit.
std::string platformToolDir();
// Creates a directory and its missing parents (mode 0755); true when it exists.
bool platformMakeDirs(const std::string& dir);
// Replaces `file` (a host path) with `text`, whole or not at all, also across
// a power cut: a temporary file of a unique name beside it, given `mode`
// before anything is written, synced, renamed over it, and the directory
// synced.  False (the old file untouched) when any step fails.
bool platformReplaceFile(const std::string& file, const std::string& text, unsigned mode);
// Whole seconds of system uptime ("/proc/uptime").
unsigned long platformUptimeSeconds();
// The calendar time in UTC as "2026-11-23T10:30:00Z".
std::string platformNowIso();
// Process set-up shared by the daemon and wcfgctl: PATH with the tool
// directory first.
void platformInit();
// Blocks the stop and user signals in the calling thread so that they reach
// the main thread; every thread the platform or the daemon creates calls it.
void platformBlockStopSignals();

// Runs a program with its arguments, found on PATH, without a shell: no
// argument is ever interpreted (stdin from /dev/null), with no file it
// writes growing beyond `maxFileBytes` (0: no limit; the program ends with
// SIGXFSZ when it tries).  Bit 0 of `flags` logs the program at debug
// level.  Returns the exit status, or -1 when it could not be run.
int platformExec(int flags, const char* const argv[], long long maxFileBytes);
// Runs a shell command line with /bin/sh (stdin from /dev/null).  Bit 0 of
// `flags` logs it at debug level.  The exit status, or -1.
int platformShell(int flags, const char* cmd);
// printf to the console (standard output), flushed.
void wos_pk(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Copies at most size-1 bytes of `src` (nullptr counts as "") and always
// terminates `dst`; the copy is cut, never overrun.
void wos_strlcpy(char* dst, const char* src, size_t size);
// atoi() with its overflow defined, and the same on every CPU: the decimal
// number at the start of `text` (after blanks, with a sign), clamped to the
// range of int.  (atoi's overflow is undefined; glibc's wraps on 64-bit CPUs
// and saturates on 32-bit ones.)
int platformParseInt(const char* text);
// Milliseconds in a platform second (WHTTPD_SECOND_MS, default 1000): the
// virtual router's waits and walk times are counted in platform seconds.
long platformSecondMs();
// Sleeps for `sec` platform seconds.  WHTTPD_SECOND_MS shortens a platform
// second for tests (default 1000 ms).
void wos_sleep(unsigned sec);

// Checks a password against the device's password store ("/etc/shadow"):
// 0 match, 1 no store or no entry for the user, 2 mismatch.
int vxUtilAuthUserAccount(const char* user, const char* password);
// Whether crypt(3) of `password` with the settings of `hash` gives `hash`;
// false for an empty password or hash.
bool vxUtilPasswordMatchesHash(const char* hash, const char* password);
// Checks `password` against a fixed hash and forgets the result: a refusal
// that needs no check (an unknown user) then takes as long as one that does.
void vxUtilAuthDummy(const char* password);
// Writes the device's base MAC address with colons ("02:10:18:3A:5C:00").
// Returns 0, or -1 leaving `buf` untouched.
int vxUtilIGetBaseMACwithColon(char* buf, size_t size);
// Binary search over [low, high]: cmp(key, index, &row) returns <0, 0, >0 and
// sets *row on 0.  Returns the row found or nullptr.
void* vxUtilSortedArraySearch(const void* key, int low, int high,
                              int (*cmp)(const void* key, int index, void** row));
