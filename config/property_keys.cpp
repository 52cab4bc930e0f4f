// Every key of the baseband manager's preferences, with its default and what
// is done with the stored value. Each getter holds its own reference to the
// shared reader for the length of the call.
#include <algorithm>
#include <initializer_list>

#include "config/capabilities.h"
#include "config/kel_properties.h"
#include "platform/trace/trace.h"

namespace {

// The reads of the getters, each on the shared reader: the result starts at
// `fallback` and a stored value that converts replaces it.
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

// 0 is no, 1 is yes, any other setting (2, "automatic", when nothing is
// stored) is yes exactly when `radio` is one of `automaticRadios`.
bool triStateKey(const char* key, uint32_t radio, std::initializer_list<uint32_t> automaticRadios) {
    int32_t setting = 2;
    static_cast<void>(KELProperties::readInt(KELProperties::instance()->adapter(), key, setting));
    if (setting == 0 || setting == 1) {
        return setting == 1;
    }
    return std::find(automaticRadios.begin(), automaticRadios.end(), radio) !=
           automaticRadios.end();
}

}  // namespace

int32_t KELProperties::getHistory() {
    int32_t history = 4;
    std::string text;
    readText(instance()->adapter(), "kel.history", text);
    static_cast<void>(parseIntValue(text, history));
    return history;
}

uint32_t KELProperties::getTUDebugFlags() {
    return unsignedKey("TUDebugFlags", 10);
}

uint32_t KELProperties::getRFSFlushInterval() {
    return unsignedKey("RFSFlushInterval", 7200);
}

uint32_t KELProperties::getRFSFlushTimeout(const Capabilities& capabilities) {
    return unsignedKey("RFSFlushTimeout", capabilities.vendor == 1 ? 9 : 15);
}

bool KELProperties::getRFSForcedSync() {
    return boolKey("RFSForcedSync", false);
}

bool KELProperties::getBootBaseband() {
    return boolKey("BootBaseband", true);
}

bool KELProperties::getBlockBasebandResets() {
    return boolKey("BlockBasebandResets", false);
}

std::string KELProperties::getLogScratchPath() {
    return textKey("LogScratchPath", kel::trace::kScratchFolder);
}

std::string KELProperties::getLogSnapshotPath() {
    return textKey("LogSnapshotPath", kel::trace::kSnapshotFolder);
}

bool KELProperties::getCoreDumpOnSoftResetTimeout() {
    return boolKey("CoreDumpOnSoftResetTimeout", false);
}

bool KELProperties::getStackshotOnShutdownTimeout() {
    // Asked on every call, before the lookup: the answer may change.
    return boolKey("StackshotOnShutdownTimeout", kel::trace::isAllowed());
}

uint32_t KELProperties::getBEDLogTimeout() {
    return unsignedKey("BEDLogTimeout", 5);
}

bool KELProperties::isCoexSupported(const Capabilities& capabilities) {
    return triStateKey("CoexSupported", capabilities.radio, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
}

bool KELProperties::isRadioHealthSupported(const Capabilities& capabilities) {
    return triStateKey("RadioHealthSupported", capabilities.radio, {1, 2, 4, 6, 8});
}

bool Capabilities::getPanicOnBasebandReset() {
    return boolKey("PanicOnBasebandReset", false);
}

bool Capabilities::isNetworkPolicySupported() const {
    return triStateKey("NetworkPolicySupported", radio, {8, 10});
}
