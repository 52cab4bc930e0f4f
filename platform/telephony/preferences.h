// The preferences store of the telephony utility library: typed values read
// from one JSON file per domain, for the current user.
//
// Where a domain lives: <home>/.config/kel/<domain>.json, with <home> taken
// from the password database for the effective user (never from $HOME). When
// the environment variable KEL_PREFERENCES_DIR is set and not empty, the file
// is <KEL_PREFERENCES_DIR>/<domain>.json instead, so that tests and instances
// side by side each have a store of their own. The variable is read when an
// adapter is constructed.
//
// The file holds one JSON object. A JSON number is a number, true and false
// a boolean, a string a text; members of any other JSON type are not
// preferences and read as absent. A file that is missing, unreadable, empty,
// larger than kMaxPreferencesFileSize, not valid JSON, not an object, nested
// deeper than kMaxPreferencesDepth, followed by anything but white space (a
// zero byte included), or not a regular file (a FIFO or a folder: never
// waited on) reads as empty.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace lum {

// The one user scope there is: the user the process runs as.
inline constexpr const char* kPreferencesScopeCurrentUser = "currentUser";

// Files beyond this size are not read.
inline constexpr size_t kMaxPreferencesFileSize = 1 << 20;

// Files whose arrays and objects nest deeper than this, the top-level object
// counted as one, are not read.
inline constexpr size_t kMaxPreferencesDepth = 16;

// A stored value: a number, a boolean or a text. A number is an integer when
// the file writes it without fraction or exponent and it fits in 64 bits, a
// real (double) otherwise; the two differ only in how they are kept and
// shown, and the conversions below treat them alike.
using PreferenceValue = std::variant<int64_t, double, bool, std::string>;

// Whether `value` is a number, integer or real.
inline bool isPreferenceNumber(const PreferenceValue& value) {
    return std::holds_alternative<int64_t>(value) || std::holds_alternative<double>(value);
}
using PreferenceMap = std::map<std::string, PreferenceValue, std::less<>>;

// The value conversions. Each writes `target` and returns true on success, or
// leaves it untouched and returns false. Nothing is ever cast silently: a
// number converts to a 32-bit integer only when it is whole and within the
// target's range, so -1 as unsigned, 1.5 and 5e9 all fail.
bool preferenceToUInt32(const PreferenceValue& value, uint32_t& target);
bool preferenceToInt32(const PreferenceValue& value, int32_t& target);
bool preferenceToBool(const PreferenceValue& value, bool& target);  // booleans only
// Any value converts to text: a text as it is, a boolean as "true" or
// "false", a whole number in decimal ("12", "-3"), any other number in its
// shortest form that reads back exactly ("1.5", "1e+300").
void preferenceToText(const PreferenceValue& value, std::string& target);

// Parses the bytes of a domain's file into `values` (replacing what it held).
// Returns false with a message in `error` (a phrase to follow the file's
// path, "is not valid JSON: ...") when the bytes are not a well-formed file
// as described above; `values` is then empty. Never throws for any input, and
// its stack does not grow with the nesting.
[[nodiscard]] bool parsePreferences(std::string_view bytes, PreferenceMap& values,
                                    std::string& error);

// The file that holds `domain` for the current user, or "" when the user has
// no home folder in the password database.
[[nodiscard]] std::string preferencesFilePath(const std::string& domain);

// Reads and parses the file at `path`. A missing file gives true and no
// values; anything else that cannot be read or parsed gives false with a
// phrase naming the problem, to follow the path in a message.
[[nodiscard]] bool loadPreferencesFile(const std::string& path, PreferenceMap& values,
                                       std::string& error);

// Reads the preferences of one domain and scope.
//
// Every read sees the file as it is at that moment: one stat(2) per read
// compares the file's identity (device, inode, size, nanosecond mtime and
// ctime) with that of the parsed copy the adapter keeps, and the file is
// parsed again only when they differ, or when the copy was read in the same
// clock tick as the file's last change (a change within that tick could keep
// every field of the identity). Safe to use from any number of threads.
class PreferencesAdapter {
  public:
    // Any scope but kPreferencesScopeCurrentUser has no store: nothing is
    // ever found in it.
    PreferencesAdapter(const std::string& domain, const std::string& scope);
    virtual ~PreferencesAdapter();
    PreferencesAdapter(const PreferencesAdapter&) = delete;
    PreferencesAdapter& operator=(const PreferencesAdapter&) = delete;

    // The value stored under `key` (matched exactly), or nothing.
    virtual std::optional<PreferenceValue> copyValue(const std::string& key) const;

    // The file this adapter reads; "" when there is none.
    const std::string& filePath() const { return path_; }

  private:
    struct Snapshot;

    std::shared_ptr<const Snapshot> currentSnapshot() const;

    const std::string path_;
    mutable std::mutex mutex_;  // guards snapshot_ only, never held over I/O
    mutable std::shared_ptr<const Snapshot> snapshot_;
};

}  // namespace lum
