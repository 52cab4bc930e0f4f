// Owners: the ids of two system accounts, and the owner of a path or of a
// whole tree. (The mode of a path and renaming are in paths.h.)
//
// Each system call runs under a guard of its own. A failure is a result, never
// an exception. Symbolic links are followed throughout, as chown(2) and
// chmod(2) follow them.
#pragma once

#include <sys/types.h>

#include <string>

namespace fsutil {

// System accounts whose ids can be looked up.
enum class Account {
    kMobile = 0,    // "mobile"
    kWireless = 1,  // "_wireless"
};

// Looks `account` up in the user database and stores its user and group ids.
// When the account is unknown, logs "Getting uid and gid: failed to get passwd
// for <name>" at the error level and leaves the outputs untouched; a value
// outside Account gives false without a message. Not thread-safe: getpwnam(3)
// shares one record in the process.
[[nodiscard]] bool getAccountIds(Account account, uid_t& uid, gid_t& gid);

// chown(2) under a guard; true when it succeeded.
[[nodiscard]] bool changeOwner(const std::string& path, uid_t uid, gid_t gid);

// Gives `path` and, if it is a directory, everything under it to uid:gid, in
// listing order. Stops with false at the first chown that fails, at a
// directory it cannot open or read (no permission, no descriptor left), and
// when a link leads back into a directory being walked (a cycle), keeping the
// changes made before.
//
// Warning: this reaches outside the tree, by design. Links are followed, to
// files and into directories anywhere; and each directory's ".." entry is
// changed like any other, so the directory that contains `path` changes
// too. Run by root on a tree that others can write, it gives away whatever
// they link to. Use it only on trees whose contents you trust.
[[nodiscard]] bool changeOwnerRecursive(const std::string& path, uid_t uid, gid_t gid);

}  // namespace fsutil
