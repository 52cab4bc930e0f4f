// kelprefs: reads and changes the baseband manager's preferences of the
// current user from the command line. See printUsage for the interface.
#include <getopt.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "config/kel_properties.h"
#include "fs/paths.h"
#include "platform/strings/format.h"
#include "platform/telephony/preferences_file.h"

namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitAbsent = 1;
constexpr int kExitError = 2;

// How long a change waits for another process's change to end.
constexpr std::chrono::milliseconds kLockTimeout{3000};

void printUsage(FILE* out, const std::string& path) {
    fprintf(out,
            "Usage: kelprefs read [--effective] [--] KEY\n"
            "       kelprefs write [--force] KEY --string TEXT | --int NUMBER"
            " | --bool true|false | --real NUMBER\n"
            "       kelprefs delete [--] KEY\n"
            "       kelprefs list [--json] [--effective]\n"
            "       kelprefs help | --help | --version\n"
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
            "                 --real NUMBER    any finite number, such as 1.5 or 2e-3; a real\n"
            "                                  stays a real even when whole\n"
            "               A key must not be empty or hold control characters. Under a key\n"
            "               the daemon reads, a value it would ignore is refused, and a key it\n"
            "               does not read is noted on standard error.\n"
            "  delete KEY   Remove KEY.\n"
            "  list         Print each stored key, its type (string, int, bool or real) and\n"
            "               its value, separated by tabs, one key per line. In keys and\n"
            "               values a backslash, tab, line feed and carriage return are\n"
            "               written \\\\, \\t, \\n and \\r, other control characters \\xHH.\n"
            "  help         Print this help.\n"
            "\n"
            "Options:\n"
            "  --effective  With read or list: the value the daemon uses for each key it\n"
            "               reads, the key's default when nothing it takes is stored.\n"
            "  --json       With list: one JSON object instead of lines.\n"
            "  --force      With write: store the value even where the daemon ignores it.\n"
            "  -h, --help   Print this help.\n"
            "  --version    Print the version.\n"
            "  --           End the options: what follows is a key even if it starts with -\n"
            "               (kelprefs write --int 5 -- -k).\n"
            "An option's value follows it as the next argument or after = (--int=5).\n"
            "\n"
            "Only numbers, booleans and texts are preferences: a member of the file that\n"
            "is null, an array or an object is not set for read, list and delete, and is\n"
            "kept by every change.\n"
            "\n"
            "A change replaces the file atomically: a reader sees the old file or the new\n"
            "one, whole, also when kelprefs is killed; the next change removes what such\n"
            "a kelprefs left. A change waits at most %lld seconds for one by another\n"
            "process. Other keys and the file's permissions are kept. A file that readers\n"
            "refuse (not a JSON object, nested deeper than %zu levels, anything after the\n"
            "object) is never overwritten.\n"
            "\n"
            "Exit status: 0 on success; 1 when the KEY to read or delete is not stored;\n"
            "2 on a usage error, a refused value, or when the file cannot be read or\n"
            "written.\n"
            "\n"
            "Environment: KEL_PREFERENCES_DIR, when set, is the folder that holds the\n"
            "file instead of ~/.config/kel.\n",
            KELProperties::kDomain, path.c_str(),
            static_cast<long long>(kLockTimeout.count() / 1000), lum::kMaxPreferencesDepth);
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

// The value of `write KEY --TYPE TEXT`, or nothing with a message printed.
std::optional<lum::PreferenceValue> parseValue(std::string_view type, std::string_view text) {
    if (type == "string") {
        return std::string(text);
    }
    if (type == "bool" && (text == "true" || text == "false")) {
        return text == "true";
    }
    if (type == "int") {
        const std::optional<int64_t> number = wholeText<int64_t>(text);
        if (number && *number >= INT32_MIN && *number <= UINT32_MAX) {
            return *number;
        }
        usageError("'" + std::string(text) +
                   "' is not a whole decimal number from -2147483648 to 4294967295");
        return std::nullopt;
    }
    if (type == "real") {
        const std::optional<double> number = wholeText<double>(text);
        if (number && std::isfinite(*number)) {
            return *number;
        }
    }
    usageError("'" + std::string(text) + "' is not a valid " + std::string(type));
    return std::nullopt;
}

const char* typeName(const lum::PreferenceValue& value) {
    constexpr const char* kNames[] = {"int", "real", "bool", "string"};
    static_assert(std::size(kNames) == std::variant_size_v<lum::PreferenceValue>);
    return kNames[value.index()];
}

std::string text(const lum::PreferenceValue& value) {
    std::string result;
    lum::preferenceToText(value, result);
    return result;
}

// `raw` with backslashes and control characters escaped, so that a listing
// has one line per key and three fields per line.
std::string escaped(std::string_view raw) {
    std::string result;
    for (const char c : raw) {
        switch (c) {
            case '\\':
                result += "\\\\";
                break;
            case '\t':
                result += "\\t";
                break;
            case '\n':
                result += "\\n";
                break;
            case '\r':
                result += "\\r";
                break;
            default:
                result += std::iscntrl(static_cast<unsigned char>(c))
                              ? platform::stringPrintf("\\x%02x", static_cast<unsigned char>(c))
                              : std::string(1, c);
        }
    }
    return result;
}

// What the getters of `kind` take, to follow "which takes" in a refusal.
const char* acceptedValues(KELProperties::ReadKind kind) {
    switch (kind) {
        case KELProperties::ReadKind::kTextBool:
            return "true, on, yes, full, lite, false, off, no (in any letter case) or a whole "
                   "number, non-zero for true";
        case KELProperties::ReadKind::kTextInt:
            return "a whole number from -2147483648 to 2147483647, or true, on, yes, full (1), "
                   "lite (2), false, off, no (0) in any letter case";
        case KELProperties::ReadKind::kUnsigned:
            return "an --int from 0 to 4294967295";
        case KELProperties::ReadKind::kInt:
            return "an --int from -2147483648 to 2147483647";
        case KELProperties::ReadKind::kBool:
            return "a --bool";
        case KELProperties::ReadKind::kText:
            break;
    }
    return "any value";
}

const KELProperties::Key* findKey(const std::string& name) {
    const auto keys = KELProperties::keys();
    const auto found = std::find_if(
        keys.begin(), keys.end(), [&](const KELProperties::Key& key) { return key.name == name; });
    return found != keys.end() ? &*found : nullptr;
}

// Whole, zero bytes included (a JSON text may hold "\u0000").
void printLine(const std::string& line) {
    fwrite(line.data(), 1, line.size(), stdout);
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

// The daemon reads a file it refuses as empty: say so, then answer as it does.
void noteIfRefused(const std::string& path) {
    lum::PreferenceMap ignored;
    std::string error;
    if (!lum::loadPreferencesFile(path, ignored, error)) {
        fprintf(stderr, "kelprefs: %s %s: every key has its default\n", path.c_str(),
                error.c_str());
    }
}

int read(const std::string& path, const std::string& key, bool effective) {
    if (effective) {
        const KELProperties::Key* known = findKey(key);
        if (known == nullptr) {
            return failure(key + " is not a key the daemon reads");
        }
        noteIfRefused(path);
        printLine(text(known->effectiveValue()));
        return kExitSuccess;
    }
    lum::PreferenceMap values;
    if (!load(path, values)) {
        return kExitError;
    }
    const auto found = values.find(key);
    if (found == values.end()) {
        fprintf(stderr, "kelprefs: %s is not set\n", key.c_str());
        return kExitAbsent;
    }
    printLine(text(found->second));
    return kExitSuccess;
}

int list(const std::string& path, bool json, bool effective) {
    std::vector<std::pair<std::string, lum::PreferenceValue>> entries;
    if (effective) {
        noteIfRefused(path);
        for (const KELProperties::Key& key : KELProperties::keys()) {
            entries.emplace_back(key.name, key.effectiveValue());
        }
    } else {
        lum::PreferenceMap values;
        if (!load(path, values)) {
            return kExitError;
        }
        entries.assign(values.begin(), values.end());
    }
    if (json) {
        nlohmann::ordered_json object = nlohmann::ordered_json::object();
        for (const auto& [key, value] : entries) {
            std::visit([&, &key = key](const auto& alternative) { object[key] = alternative; },
                       value);
        }
        printLine(object.dump(4, ' ', false, nlohmann::json::error_handler_t::replace));
        return kExitSuccess;
    }
    for (const auto& [key, value] : entries) {
        printLine(escaped(key) + "\t" + typeName(value) + "\t" + escaped(text(value)));
    }
    return kExitSuccess;
}

int edit(const std::string& path, const std::string& key,
         const std::optional<lum::PreferenceValue>& value) {
    // A new file gets what any new file of this user would get.
    const mode_t mask = umask(0);
    umask(mask);
    const size_t slash = path.rfind('/');
    // A write makes the folder and its parents (~/.config/kel) when missing.
    if (value && slash != std::string::npos && slash > 0 &&
        !fsutil::makeDirectory(path.substr(0, slash), 0755, /*recursive=*/true)) {
        fprintf(stderr, "kelprefs: cannot create the folder %s\n", path.substr(0, slash).c_str());
        return kExitError;
    }
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

int write(const std::string& path, const std::string& key, const std::string& type,
          const std::string& valueText, bool force) {
    const std::optional<lum::PreferenceValue> value = parseValue(type, valueText);
    if (!value) {
        return kExitError;
    }
    const KELProperties::Key* known = findKey(key);
    if (!force && known != nullptr && !KELProperties::takes(known->kind, *value)) {
        return failure("the daemon would not take --" + type + " '" + valueText + "' under " + key +
                       ", which takes " + acceptedValues(known->kind) +
                       " (--force stores it anyway)");
    }
    if (!force && known == nullptr) {
        fprintf(stderr, "kelprefs: note: the daemon does not read %s\n", escaped(key).c_str());
    }
    return edit(path, key, value);
}

// The command line once its options are taken out.
struct CommandLine {
    std::vector<std::string> operands;  // the command, then its arguments
    bool help = false;
    bool version = false;
    bool effective = false;
    bool force = false;
    bool json = false;
    std::string type;  // of write: "string", "int", "bool" or "real"
    std::string value;
};

// Options go anywhere before "--", each one's value as the next argument or
// after "=". Nothing, after a usage error was printed, on a bad option.
std::optional<CommandLine> parseCommandLine(int argc, char** argv) {
    static const option kOptions[] = {
        {"help", no_argument, nullptr, 'h'},       {"version", no_argument, nullptr, 'V'},
        {"effective", no_argument, nullptr, 'e'},  {"json", no_argument, nullptr, 'j'},
        {"force", no_argument, nullptr, 'f'},      {"string", required_argument, nullptr, 's'},
        {"int", required_argument, nullptr, 'i'},  {"bool", required_argument, nullptr, 'b'},
        {"real", required_argument, nullptr, 'r'}, {nullptr, 0, nullptr, 0}};
    CommandLine line;
    opterr = 0;
    // "-" returns operands in place (as option 1), whatever POSIXLY_CORRECT
    // says; ":" reports a missing value apart from an unknown option.
    int index = 0;
    for (int option; (option = getopt_long(argc, argv, "-:h", kOptions, &index)) != -1;) {
        switch (option) {
            case 1:
                line.operands.emplace_back(optarg);
                break;
            case 'h':
                line.help = true;
                break;
            case 'V':
                line.version = true;
                break;
            case 'e':
                line.effective = true;
                break;
            case 'j':
                line.json = true;
                break;
            case 'f':
                line.force = true;
                break;
            case ':':
                usageError(std::string("option '") + argv[optind - 1] + "' needs a value");
                return std::nullopt;
            case '?': {
                const std::string bad = std::string_view(argv[optind - 1]).starts_with("--")
                                            ? argv[optind - 1]
                                            : std::string("-") + static_cast<char>(optopt);
                usageError(!line.operands.empty() && line.operands[0] == "write"
                               ? "unknown type '" + bad + "': use --string, --int, --bool or --real"
                               : "unknown option '" + bad + "'");
                return std::nullopt;
            }
            default:
                if (!line.type.empty()) {
                    usageError("give only one of --string, --int, --bool or --real");
                    return std::nullopt;
                }
                line.type = kOptions[index].name;
                line.value = optarg;
        }
    }
    line.operands.insert(line.operands.end(), argv + optind, argv + argc);
    return line;
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<CommandLine> line = parseCommandLine(argc, argv);
    if (!line) {
        return kExitError;
    }
    const std::string path = lum::preferencesFilePath(KELProperties::kDomain);
    const std::vector<std::string>& args = line->operands;
    if (line->help || (args.size() == 1 && args[0] == "help")) {
        printUsage(stdout, path);
        return kExitSuccess;
    }
    if (line->version) {
        printf("kelprefs %s\n", KEL_VERSION);
        return kExitSuccess;
    }
    if (args.empty()) {
        return usageError("missing command");
    }
    const std::string& command = args[0];
    const size_t expected = command == "list" || command == "help"                           ? 1
                            : command == "read" || command == "delete" || command == "write" ? 2
                                                                                             : 0;
    if (expected == 0) {
        return usageError("unknown command '" + command + "'");
    }
    if (args.size() != expected) {
        return usageError("wrong number of arguments for " + command);
    }
    const std::pair<bool, const char*> kOptionsOfCommands[] = {
        {line->effective && command != "read" && command != "list", "--effective"},
        {line->json && command != "list", "--json"},
        {line->force && command != "write", "--force"},
        {!line->type.empty() && command != "write", "a type"}};
    for (const auto& [misplaced, option] : kOptionsOfCommands) {
        if (misplaced) {
            return usageError(std::string(option) + " does not go with " + command);
        }
    }
    if (command == "write" && line->type.empty()) {
        return usageError("missing type: use --string, --int, --bool or --real");
    }
    if (path.empty()) {
        return failure("the current user has no home folder");
    }
    if (command == "list") {
        return list(path, line->json, line->effective);
    }
    if (command == "read") {
        return read(path, args[1], line->effective);
    }
    if (command == "delete") {
        return edit(path, args[1], std::nullopt);
    }
    return write(path, args[1], line->type, line->value, line->force);
}
