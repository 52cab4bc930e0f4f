// The one walk over directory trees behind removeRecursive, removeOlderThan
// and changeOwnerRecursive. Not part of the library's interface.
//
// Every level is held by a descriptor: a subdirectory is opened relative to
// its parent's descriptor, and each entry is acted on by name relative to the
// descriptor of the directory it was listed in. Nothing is resolved twice from
// a path, so a directory swapped for a link between the listing and the
// action is met as the link. A walk that stays in its tree never leaves it: a
// link, the top one included, is handed on like any file, and a directory on
// which something is mounted (another file system, or a bind mount of a
// folder from anywhere) is not walked into.
//
// Guarded steps, as the operations built on this place them:
//  - the listing of a level: the open, fdopendir and every readdir, under one
//    guard; the stream is closed when the level is done;
//  - the directory test of an entry is answered from the type readdir gave,
//    and only when that type is unknown (or a link, for a walk that follows
//    links) by fstatat under a guard, the existence test of a path walk. The
//    probe that opens the entry as a directory is the listing of its level.
//    An entry that turns out not to be a directory when opened (a file, a
//    link in a walk that does not follow links, or gone) is visited like a
//    file; a directory that cannot be opened or read to its end (no
//    descriptor left, no permission, a read error) is handed to
//    visitUnreadableDirectory, never taken for a file;
//  - with guardEachLevel, a guard armed before a subdirectory is opened stays
//    armed until its level is done and leaveDirectory has returned.
#pragma once

#include <dirent.h>
#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace fsutil::internal {

// The name of a directory entry. Linux records no name length in a dirent;
// its name is padded with NULs up to the end of the record, which bounds the
// search.
std::string_view entryName(const dirent& entry);

// Whether `name` is "." or "..": the directory itself and its parent, listed
// like any entry and never walked into.
inline bool isDotOrDotDot(std::string_view name) {
    return name == "." || name == "..";
}

// A directory stream, closed when the owner goes.
struct CloseDir {
    void operator()(DIR* stream) const { closedir(stream); }
};
using DirStream = std::unique_ptr<DIR, CloseDir>;

struct ListedEntry {
    std::string name;
    // As readdir reported it; DT_UNKNOWN when the file system does not say.
    unsigned char type;
};

// One directory held open for a walk, with its entries as listed when it was
// opened, in the system's order, "." and ".." included.
class OpenDirectory {
  public:
    // Opens `path`, following a link there only with `followLinks`, and
    // lists it.
    OpenDirectory(const std::string& path, bool followLinks);
    // Opens the entry `name` of `parent` in the same way, and lists it.
    OpenDirectory(const OpenDirectory& parent, const char* name, bool followLinks);
    ~OpenDirectory();
    OpenDirectory(const OpenDirectory&) = delete;
    OpenDirectory& operator=(const OpenDirectory&) = delete;

    // Whether the path opened as a directory and was read to its end.
    bool isDirectory() const { return !entries_.empty(); }
    // Whether the path is a directory that could not be opened or read to
    // its end; false for a directory read whole and for what is none.
    bool isUnreadableDirectory() const;
    // Valid while the level is open.
    int fd() const;
    const std::vector<ListedEntry>& entries() const { return entries_; }
    // Whether this directory is also one of its own ancestors in the walk
    // (reached again through a link or a bind mount).
    bool repeatsAnAncestor() const;
    // Whether this directory is on another mount than its parent in the walk:
    // a mount point.
    bool isMountPoint() const;

    // Closes the stream early; the walk does so before removing the level.
    void close();

  private:
    void list(int fd);

    DirStream stream_;
    std::vector<ListedEntry> entries_;
    const OpenDirectory* parent_ = nullptr;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    // 0 where the kernel does not tell mounts apart (before Linux 5.8): the
    // device alone then tells a mount point.
    uint64_t mount_ = 0;
    // errno of the step that failed, 0 when none did.
    int error_ = 0;
};

// What one kind of walk does at each entry; the walk decides only which
// entries are directories to descend into, and in which order.
class TreeVisitor {
  public:
    // Whether the walk keeps inside its tree: a link goes to visitEntry like a
    // file, and a mount point is not walked into (leaveDirectory hears that it
    // was not walked). Otherwise links to directories are descended into, and
    // mount points too.
    virtual bool staysInTree() const = 0;
    // Whether each subdirectory is walked under a guard of its own.
    virtual bool guardsEachLevel() const = 0;
    // "." or ".." of `directory`. False stops the walk.
    virtual bool visitDot(const OpenDirectory& directory, const char* name) = 0;
    // An entry of `directory` that is not descended into. False stops.
    virtual bool visitEntry(const OpenDirectory& directory, const char* name) = 0;
    // A subdirectory `name` of `directory` that could not be opened or read
    // to its end. False stops.
    virtual bool visitUnreadableDirectory(const OpenDirectory& directory, const char* name) = 0;
    // After the subdirectory `name` of `parent` was walked (closed by now),
    // `walked` telling whether every entry below it was visited. Returns
    // whether to go on.
    virtual bool leaveDirectory(const OpenDirectory& parent, const char* name, bool walked) = 0;

  protected:
    ~TreeVisitor() = default;
};

// Visits the entries of `directory` in listing order, descending into
// subdirectories; stops at the first visit that fails. A directory met again
// below itself ends the walk with false.
bool walkTree(const OpenDirectory& directory, TreeVisitor& visitor);

// Visits one listed entry of `directory` as walkTree would.
bool walkEntry(const OpenDirectory& directory, const ListedEntry& entry, TreeVisitor& visitor);

}  // namespace fsutil::internal
