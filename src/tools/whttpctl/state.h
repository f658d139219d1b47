// The per-user state file: for each device URL the session cookie, the
// latest session key and the user name.  It holds a live credential, so it
// is private to its user (mode 0600 in a directory of mode 0700), and a file
// that anyone else could have written or swapped is refused, not used.
#pragma once

#include <string>

#include "fd.h"
#include "json.h"

namespace whttpctl {

struct SessionEntry {
    std::string user;
    std::string cookie;
    long key = 0;
};

class StateFile {
  public:
    // $WHTTPCTL_STATE, else $XDG_STATE_HOME/whttpctl/session, else
    // ~/.local/state/whttpctl/session.
    static std::string defaultPath();
    explicit StateFile(std::string path) : path_(std::move(path)) {}

    // Reads the file (a missing file is an empty state).  False with `error`
    // set when the file or its directory is refused or damaged.  The file is
    // only ever replaced whole, so reading needs no lock.
    bool read(std::string& error);
    // Takes the user's lock, then reads the file afresh: kOk, kBusy when
    // another run holds the lock for too long, or kState.  The lock is held
    // until unlock(), around a use of the session key and the save of the
    // key that the answer renewed.
    int load(std::string& error);
    void unlock() { lock_.reset(-1); }
    // Writes the whole state to a new private file and renames it over the
    // old one, so that a reader never sees half a file.  Under the lock.
    bool save(std::string& error);

    bool find(const std::string& url, SessionEntry& entry) const;
    void put(const std::string& url, const SessionEntry& entry);
    void erase(const std::string& url);
    const std::string& path() const { return path_; }

  private:
    int lock(std::string& error);
    bool checkDirectory(bool create, std::string& error) const;
    std::string directory() const;

    std::string path_;
    JsonPtr doc_;
    Fd lock_{-1};
};

// Whether `cookie` is a plausible session cookie value: it goes into a
// request header, so nothing but letters and digits.
bool plausibleCookie(const std::string& cookie);

}  // namespace whttpctl
