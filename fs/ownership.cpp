#include "fs/ownership.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include "fs/error_log.h"
#include "fs/paths.h"
#include "fs/tree_walk.h"
#include "fs/watchdog_guard.h"

namespace fsutil {

namespace {

using internal::OpenDirectory;

// An owner change walk: links are followed and mount points crossed; "." and
// ".." are changed like any entry and never descended into.
class OwnerChange final : public internal::TreeVisitor {
  public:
    OwnerChange(uid_t uid, gid_t gid) : uid_(uid), gid_(gid) {}

    bool staysInTree() const override { return false; }
    bool guardsEachLevel() const override { return false; }
    bool visitDot(const OpenDirectory& directory, const char* name) override {
        return visitEntry(directory, name);
    }
    bool visitEntry(const OpenDirectory& directory, const char* name) override {
        WatchdogGuard guard;
        return fchownat(directory.fd(), name, uid_, gid_, 0) == 0;
    }
    // Changing the folder alone would report a walk that never went below it.
    bool visitUnreadableDirectory(const OpenDirectory&, const char*) override { return false; }
    bool leaveDirectory(const OpenDirectory&, const char*, bool walked) override { return walked; }

  private:
    const uid_t uid_;
    const gid_t gid_;
};

}  // namespace

bool getAccountIds(Account account, uid_t& uid, gid_t& gid) {
    const char* name = account == Account::kMobile     ? "mobile"
                       : account == Account::kWireless ? "_wireless"
                                                       : nullptr;
    if (name == nullptr) {
        return false;
    }
    const passwd* entry = getpwnam(name);
    if (entry == nullptr) {
        internal::logError("Getting uid and gid: failed to get passwd for %s", name);
        return false;
    }
    uid = entry->pw_uid;
    gid = entry->pw_gid;
    return true;
}

bool changeOwner(const std::string& path, uid_t uid, gid_t gid) {
    WatchdogGuard guard;
    return chown(path.c_str(), uid, gid) == 0;
}

bool changeOwnerRecursive(const std::string& path, uid_t uid, gid_t gid) {
    if (exists(path)) {
        const OpenDirectory top(path, /*followLinks=*/true);
        if (top.isDirectory()) {
            OwnerChange change(uid, gid);
            return internal::walkTree(top, change);
        }
        if (top.isUnreadableDirectory()) {
            return false;
        }
    }
    return changeOwner(path, uid, gid);
}

}  // namespace fsutil
