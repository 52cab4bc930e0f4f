// A domain's file as a file: reading it without blocking, and changing one key
// of it atomically. For the store itself and the command-line tool; readers
// go through PreferencesAdapter (preferences.h).
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "platform/telephony/preferences.h"

namespace lum {

enum class FileReadResult {
    kRead,
    kMissing,
    kUnreadable,  // errno tells why
    kNotRegular,
    kTooLarge,
};

// Reads the whole regular file at `path` into `bytes` and its status, taken
// before the read, into `status`. Opening never blocks, whatever is at `path`.
[[nodiscard]] FileReadResult readPreferencesFile(const std::string& path, std::string& bytes,
                                                 struct stat& status);

// "is not a regular file" and the like, to follow the file's path in a
// message; "" for kRead and kMissing. Call right after the read (errno).
[[nodiscard]] std::string describeFileReadResult(FileReadResult result);

enum class EditResult {
    kDone,
    kKeyAbsent,  // a removal found no preference to remove; the file is untouched
    kFailed,     // the file is untouched; `error` says why
};

// Sets `key` to `value` in the file at `path`, or removes it when `value` is
// empty, keeping every other member (whatever its JSON type) in its order.
// Only a preference is removed: a member that readers take as absent (null,
// an array or an object) is not, as if it were not there. A
// key to set must not be empty or hold control characters (a line feed would
// make a listing ambiguous).
//
// The file is replaced whole or not at all: the new content goes to a
// temporary file ".<name>.new-XXXXXX" in the same folder, which is synced,
// takes the old file's permission bits (`newFileMode` when there was no file)
// and is renamed over it; then the folder is synced. The folder must exist
// (see fsutil::makeDirectory). Edits of one folder by several processes are
// serialised with a lock on the folder, so that none is lost; an edit waits
// at most `lockTimeout` for it. A file that cannot be read, or
// that readers would take as empty (see preferences.h), is refused rather than
// overwritten, and so is an edit whose file would be too large for them. A
// process killed during an edit can leave its temporary file, never a partial
// domain file; the next edit, holding the lock, removes it.
[[nodiscard]] EditResult editPreference(const std::string& path, const std::string& key,
                                        const std::optional<PreferenceValue>& value,
                                        mode_t newFileMode, std::chrono::milliseconds lockTimeout,
                                        std::string& error);

}  // namespace lum
