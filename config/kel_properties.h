// KELProperties: the baseband manager's settings, read from its preferences
// domain (kDomain, current user) at the moment each is asked for.
//
// Every getter starts from the key's default and returns it whenever the key
// is absent or its stored value does not convert: silently, without a message.
// Nothing is cached here (the store revalidates its file on every read) and
// nothing is ever written. Only the "kel." keys are parsed from text, with the
// words and numbers of parseBoolValue and parseIntValue; the path keys take
// any text as it is; every other key needs a stored number or boolean.
//
// All operations are class-level and thread-safe. They share one reader
// (instance()), made on first use and released at exit.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "config/value_parsing.h"
#include "platform/telephony/preferences.h"

class Capabilities;

class KELProperties {
  public:
    // The baseband manager's preferences domain.
    static constexpr const char* kDomain = "org.kel.basebandmanager";
    // The key of isEnabled.
    static constexpr const char* kEnabledKey = "kel.enabled";

    // The process-wide reader, bound to kDomain for the current user.
    static std::shared_ptr<KELProperties> instance();

    const lum::PreferencesAdapter& adapter() const { return adapter_; }

    // Typed reads: true when `key` holds a number (readUnsigned, readInt) or
    // a boolean (readBool) that converts to the target, which is written only
    // then. A text, even "1", is a type mismatch.
    static bool readUnsigned(const lum::PreferencesAdapter& adapter, const std::string& key,
                             uint32_t& target);
    static bool readInt(const lum::PreferencesAdapter& adapter, const std::string& key,
                        int32_t& target);
    static bool readBool(const lum::PreferencesAdapter& adapter, const std::string& key,
                         bool& target);
    // Any stored value, as text (see lum::preferenceToText); the target is left
    // as it is when nothing is stored.
    static void readText(const lum::PreferencesAdapter& adapter, const std::string& key,
                         std::string& target);

    // The text parsers of the "kel." keys (value_parsing.h), as the reader's
    // own operations.
    static bool parseBoolValue(const std::string& text, bool& target) {
        return kel::parseBoolValue(text, target);
    }
    static bool parseIntValue(const std::string& text, int32_t& target) {
        return kel::parseIntValue(text, target);
    }

    // How the getter of a key reads its stored value: text parsed with
    // parseBoolValue or parseIntValue (the "kel." keys), a number read with
    // readUnsigned or readInt, a boolean read with readBool, or any value read
    // as text.
    enum class ReadKind { kTextBool, kTextInt, kUnsigned, kInt, kBool, kText };

    // A key that a getter reads, and what that getter returns now: the stored
    // value when it converts, the key's default otherwise.
    struct Key {
        const char* name;
        ReadKind kind;
        lum::PreferenceValue (*effectiveValue)();
    };

    // Every key the getters read, "kel.enabled" first.
    static std::span<const Key> keys();

    // Whether a getter that reads its key as `kind` takes `value`, stored
    // under it, rather than its default: the same reads and parsers decide.
    static bool takes(ReadKind kind, const lum::PreferenceValue& value);

    // "kel.enabled": whether the daemon keeps its own log. Unless set, true
    // exactly on a carrier build that is not an internal build (asked of the
    // platform at each call; the record is not consulted).
    static bool isEnabled(const Capabilities& capabilities);

    // "kel.history" (text/int), default 4.
    static int32_t getHistory();
    // "TUDebugFlags", default 10.
    static uint32_t getTUDebugFlags();
    // "RFSFlushInterval", default 7200.
    static uint32_t getRFSFlushInterval();
    // "RFSFlushTimeout", default 9 with radio vendor 1, 15 otherwise.
    static uint32_t getRFSFlushTimeout(const Capabilities& capabilities);
    // "RFSForcedSync", default false.
    static bool getRFSForcedSync();
    // "BootBaseband", default true.
    static bool getBootBaseband();
    // "BlockBasebandResets", default false.
    static bool getBlockBasebandResets();
    // "LogScratchPath" and "LogSnapshotPath" (any text, returned as stored),
    // default the trace library's scratch and snapshot folders.
    static std::string getLogScratchPath();
    static std::string getLogSnapshotPath();
    // "CoreDumpOnSoftResetTimeout", default false.
    static bool getCoreDumpOnSoftResetTimeout();
    // "StackshotOnShutdownTimeout", default kel::trace::isAllowed() at the
    // time of the call.
    static bool getStackshotOnShutdownTimeout();
    // "BEDLogTimeout", default 5.
    static uint32_t getBEDLogTimeout();
    // Tri-state keys: stored 0 is false, 1 true, anything else (and nothing
    // stored) decides from the record's radio: radios 1 to 10 for
    // "CoexSupported", 1, 2, 4, 6 and 8 for "RadioHealthSupported".
    static bool isCoexSupported(const Capabilities& capabilities);
    static bool isRadioHealthSupported(const Capabilities& capabilities);

  private:
    KELProperties();

    lum::PreferencesAdapter adapter_;
};
