// Every key of the baseband manager's preferences, with its default and what
// is done with the stored value, and the list of them (keys()) through which
// tools ask what the daemon would use. Each getter holds its own reference to
// the shared reader for the length of the call.
#include "config/property_keys.h"

#include <algorithm>

#include "config/capabilities.h"
#include "config/kel_properties.h"
#include "platform/trace/trace.h"

namespace kel::internal {

uint32_t unsignedKey(const char* key, uint32_t fallback) {
    static_cast<void>(
        KELProperties::readUnsigned(KELProperties::instance()->adapter(), key, fallback));
    return fallback;
}

bool boolKey(const char* key, bool fallback) {
    static_cast<void>(KELProperties::readBool(KELProperties::instance()->adapter(), key, fallback));
    return fallback;
}

std::string textKey(const char* key, std::string fallback) {
    KELProperties::readText(KELProperties::instance()->adapter(), key, fallback);
    return fallback;
}

bool triStateKey(const char* key, uint32_t radio, std::initializer_list<uint32_t> automaticRadios) {
    int32_t setting = 2;
    static_cast<void>(KELProperties::readInt(KELProperties::instance()->adapter(), key, setting));
    if (setting == 0 || setting == 1) {
        return setting == 1;
    }
    return std::find(automaticRadios.begin(), automaticRadios.end(), radio) !=
           automaticRadios.end();
}

}  // namespace kel::internal

using namespace kel::internal;

int32_t KELProperties::getHistory() {
    int32_t history = 4;
    std::string text;
    readText(instance()->adapter(), kHistory, text);
    static_cast<void>(parseIntValue(text, history));
    return history;
}

uint32_t KELProperties::getTUDebugFlags() {
    return unsignedKey(kTUDebugFlags, 10);
}

uint32_t KELProperties::getRFSFlushInterval() {
    return unsignedKey(kRFSFlushInterval, 7200);
}

uint32_t KELProperties::getRFSFlushTimeout(const Capabilities& capabilities) {
    return unsignedKey(kRFSFlushTimeout, capabilities.vendor == 1 ? 9 : 15);
}

bool KELProperties::getRFSForcedSync() {
    return boolKey(kRFSForcedSync, false);
}

bool KELProperties::getBootBaseband() {
    return boolKey(kBootBaseband, true);
}

bool KELProperties::getBlockBasebandResets() {
    return boolKey(kBlockBasebandResets, false);
}

std::string KELProperties::getLogScratchPath() {
    return textKey(kLogScratchPath, kel::trace::kScratchFolder);
}

std::string KELProperties::getLogSnapshotPath() {
    return textKey(kLogSnapshotPath, kel::trace::kSnapshotFolder);
}

bool KELProperties::getCoreDumpOnSoftResetTimeout() {
    return boolKey(kCoreDumpOnSoftResetTimeout, false);
}

bool KELProperties::getStackshotOnShutdownTimeout() {
    // Asked on every call, before the lookup: the answer may change.
    return boolKey(kStackshotOnShutdownTimeout, kel::trace::isAllowed());
}

uint32_t KELProperties::getBEDLogTimeout() {
    return unsignedKey(kBEDLogTimeout, 5);
}

bool KELProperties::isCoexSupported(const Capabilities& capabilities) {
    return triStateKey(kCoexSupported, capabilities.radio, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
}

bool KELProperties::isRadioHealthSupported(const Capabilities& capabilities) {
    return triStateKey(kRadioHealthSupported, capabilities.radio, {1, 2, 4, 6, 8});
}

namespace {

using Kind = KELProperties::ReadKind;

lum::PreferenceValue number(int64_t value) {
    return value;
}

constexpr KELProperties::Key kKeys[] = {
    {KELProperties::kEnabledKey, Kind::kTextBool,
     [] { return lum::PreferenceValue(KELProperties::isEnabled(*Capabilities::instance())); }},
    {kHistory, Kind::kTextInt, [] { return number(KELProperties::getHistory()); }},
    {kTUDebugFlags, Kind::kUnsigned, [] { return number(KELProperties::getTUDebugFlags()); }},
    {kRFSFlushInterval, Kind::kUnsigned,
     [] { return number(KELProperties::getRFSFlushInterval()); }},
    {kRFSFlushTimeout, Kind::kUnsigned,
     [] { return number(KELProperties::getRFSFlushTimeout(*Capabilities::instance())); }},
    {kRFSForcedSync, Kind::kBool,
     [] { return lum::PreferenceValue(KELProperties::getRFSForcedSync()); }},
    {kBootBaseband, Kind::kBool,
     [] { return lum::PreferenceValue(KELProperties::getBootBaseband()); }},
    {kBlockBasebandResets, Kind::kBool,
     [] { return lum::PreferenceValue(KELProperties::getBlockBasebandResets()); }},
    {kLogScratchPath, Kind::kText,
     [] { return lum::PreferenceValue(KELProperties::getLogScratchPath()); }},
    {kLogSnapshotPath, Kind::kText,
     [] { return lum::PreferenceValue(KELProperties::getLogSnapshotPath()); }},
    {kCoreDumpOnSoftResetTimeout, Kind::kBool,
     [] { return lum::PreferenceValue(KELProperties::getCoreDumpOnSoftResetTimeout()); }},
    {kStackshotOnShutdownTimeout, Kind::kBool,
     [] { return lum::PreferenceValue(KELProperties::getStackshotOnShutdownTimeout()); }},
    {kBEDLogTimeout, Kind::kUnsigned, [] { return number(KELProperties::getBEDLogTimeout()); }},
    {kCoexSupported, Kind::kInt,
     [] {
         return lum::PreferenceValue(KELProperties::isCoexSupported(*Capabilities::instance()));
     }},
    {kRadioHealthSupported, Kind::kInt,
     [] {
         return lum::PreferenceValue(
             KELProperties::isRadioHealthSupported(*Capabilities::instance()));
     }},
    {kPanicOnBasebandReset, Kind::kBool,
     [] { return lum::PreferenceValue(Capabilities::getPanicOnBasebandReset()); }},
    {kNetworkPolicySupported, Kind::kInt,
     [] { return lum::PreferenceValue(Capabilities::instance()->isNetworkPolicySupported()); }},
};

}  // namespace

std::span<const KELProperties::Key> KELProperties::keys() {
    return kKeys;
}
