// kelprefs: reads and changes the baseband manager's preferences of the
// current user from the command line. See printUsage for the interface.
#include <sys/stat.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/kel_properties.h"
#include "platform/telephony/preferences_file.h"

namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitAbsent = 1;
constexpr int kExitError = 2;

// How long a change waits for another process's change to end.
constexpr std::chrono::milliseconds kLockTimeout{3000};

void printUsage(FILE* out, const std::string& path) {
    fprintf(out,
            "Usage: kelprefs read KEY\n"
            "       kelprefs write KEY --string TEXT | --int NUMBER | --bool true|false"
            " | --real NUMBER\n"
            "       kelprefs delete KEY\n"
            "       kelprefs list\n"
            "       kelprefs --help\n"
            "\n"
            "Reads and changes the baseband manager's preferences (domain %s) of the\n"
            "current user, kept as a JSON object in\n"
            "    %s\n"
            "\n"
            "Commands:\n"
            "  read KEY     Print the value stored under KEY: a text as it is, a number in\n"
            "               decimal, a boolean as true or false.\n"
            "  write KEY TYPE VALUE\n"
            "               Store VALUE under KEY as TYPE, replacing what was there:\n"
            "                 --string TEXT    any text, such as yes or lite for the kel. keys\n"
            "                 --int NUMBER     a whole decimal number, -2147483648 to 4294967295\n"
            "                 --bool VALUE     true or false\n"
            "                 --real NUMBER    any finite number, such as 1.5 or 2e-3\n"
            "  delete KEY   Remove KEY.\n"
            "  list         Print each stored key, its type (string, int, bool or real) and\n"
            "               its value, separated by tabs, one key per line.\n"
            "\n"
            "A change replaces the file atomically: a reader sees the old file or the new\n"
            "one, whole, also when kelprefs is killed. Other keys, members that are not\n"
            "preferences, and the file's permissions are kept. A file that is not a JSON\n"
            "object is never overwritten.\n"
            "\n"
            "Exit status: 0 on success; 1 when the KEY to read or delete is not stored;\n"
            "2 on a usage error, or when the file cannot be read or written.\n"
            "\n"
            "Environment: KEL_PREFERENCES_DIR, when set, is the folder that holds the\n"
            "file instead of ~/.config/kel.\n",
            KELProperties::kDomain, path.c_str());
}

int usageError(const std::string& message) {
    fprintf(stderr, "kelprefs: %s\nTry 'kelprefs --help' for more information.\n", message.c_str());
    return kExitError;
}

int failure(const std::string& message) {
    fprintf(stderr, "kelprefs: %s\n", message.c_str());
    return kExitError;
}

// The whole of `text` as a number of type T, or nothing.
template <typename T>
std::optional<T> wholeText(std::string_view text) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

// The value of `write KEY TYPE TEXT`, or nothing with a message printed.
std::optional<lum::PreferenceValue> parseValue(std::string_view type, std::string_view text) {
    if (type == "--string") {
        return std::string(text);
    }
    if (type == "--bool" && (text == "true" || text == "false")) {
        return text == "true";
    }
    if (type == "--int") {
        const std::optional<int64_t> number = wholeText<int64_t>(text);
        if (number && *number >= INT32_MIN && *number <= UINT32_MAX) {
            return *number;
        }
    }
    if (type == "--real") {
        const std::optional<double> number = wholeText<double>(text);
        if (number && std::isfinite(*number)) {
            return *number;
        }
    }
    if (type != "--string" && type != "--bool" && type != "--int" && type != "--real") {
        usageError("unknown type '" + std::string(type) +
                   "': use --string, --int, --bool or --real");
    } else if (type == "--int") {
        usageError("'" + std::string(text) +
                   "' is not a whole decimal number from -2147483648 to 4294967295");
    } else {
        usageError("'" + std::string(text) + "' is not a valid " + std::string(type.substr(2)));
    }
    return std::nullopt;
}

const char* typeName(const lum::PreferenceValue& value) {
    if (std::holds_alternative<std::string>(value)) {
        return "string";
    }
    if (std::holds_alternative<bool>(value)) {
        return "bool";
    }
    return std::holds_alternative<int64_t>(value) ? "int" : "real";
}

// Whole, zero bytes included (a JSON text may hold "\u0000").
void printLine(const std::string& text) {
    fwrite(text.data(), 1, text.size(), stdout);
    putchar('\n');
}

bool load(const std::string& path, lum::PreferenceMap& values) {
    std::string error;
    if (!lum::loadPreferencesFile(path, values, error)) {
        failure(path + " " + error);
        return false;
    }
    return true;
}

int read(const std::string& path, const std::string& key) {
    lum::PreferenceMap values;
    if (!load(path, values)) {
        return kExitError;
    }
    const auto found = values.find(key);
    if (found == values.end()) {
        fprintf(stderr, "kelprefs: %s is not set\n", key.c_str());
        return kExitAbsent;
    }
    std::string text;
    lum::preferenceToText(found->second, text);
    printLine(text);
    return kExitSuccess;
}

int list(const std::string& path) {
    lum::PreferenceMap values;
    if (!load(path, values)) {
        return kExitError;
    }
    for (const auto& [key, value] : values) {
        std::string text;
        lum::preferenceToText(value, text);
        printLine(key + "\t" + typeName(value) + "\t" + text);
    }
    return kExitSuccess;
}

int edit(const std::string& path, const std::string& key,
         const std::optional<lum::PreferenceValue>& value) {
    // A new file gets what any new file of this user would get.
    const mode_t mask = umask(0);
    umask(mask);
    std::string error;
    switch (lum::editPreference(path, key, value, 0666 & ~mask, kLockTimeout, error)) {
        case lum::EditResult::kDone:
            return kExitSuccess;
        case lum::EditResult::kKeyAbsent:
            fprintf(stderr, "kelprefs: %s is not set\n", key.c_str());
            return kExitAbsent;
        case lum::EditResult::kFailed:
            break;
    }
    return failure(error);
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    const std::string path = lum::preferencesFilePath(KELProperties::kDomain);
    if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
        printUsage(stdout, path);
        return kExitSuccess;
    }
    if (args.empty()) {
        return usageError("missing command");
    }
    const std::string& command = args[0];
    const size_t expected = command == "list"                          ? 1
                            : command == "read" || command == "delete" ? 2
                            : command == "write"                       ? 4
                                                                       : 0;
    if (expected == 0) {
        return usageError("unknown command '" + command + "'");
    }
    if (args.size() != expected) {
        return usageError("wrong number of arguments for " + command);
    }
    if (path.empty()) {
        return failure("the current user has no home folder");
    }
    if (command == "list") {
        return list(path);
    }
    if (command == "read") {
        return read(path, args[1]);
    }
    if (command == "delete") {
        return edit(path, args[1], std::nullopt);
    }
    const std::optional<lum::PreferenceValue> value = parseValue(args[2], args[3]);
    return value ? edit(path, args[1], value) : kExitError;
}
