// Failed-login table: failures counted per user name, and the lock that
// follows too many of them.
#pragma once

#include <ctime>

// The pseudo user under which every unknown user name is counted.
#define INVALID_ACCOUNT_NAME "Invalid_Account"

// 0 when `user` is not locked, else the seconds of lock left.  A lock that has
// run out leaves a count of 1 on record.
unsigned isRestriction(const char* user);
// Whether `user` is locked now; unlike isRestriction() it changes nothing.
bool retryTableLocked(const char* user);
// "set" counts a failure of `user`, "remove" forgets its failures; any other
// action does nothing.
void retryTableMgt(const char* action, const char* user);

// Replaces the calendar clock of the table (nullptr: back to time(3)); for
// tests.
void retryTableSetClock(time_t (*clock)(time_t*));
// Forgets every record; for tests.
void retryTableClear(void);
