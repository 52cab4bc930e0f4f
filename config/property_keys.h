// The keys of the baseband manager's preferences, and the reads behind the
// getters of KELProperties and Capabilities: each on the shared reader, the
// result starting at the key's default, which a stored value that converts
// replaces. Not part of the library's interface.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

namespace kel::internal {

inline constexpr const char* kHistory = "kel.history";
inline constexpr const char* kTUDebugFlags = "TUDebugFlags";
inline constexpr const char* kRFSFlushInterval = "RFSFlushInterval";
inline constexpr const char* kRFSFlushTimeout = "RFSFlushTimeout";
inline constexpr const char* kRFSForcedSync = "RFSForcedSync";
inline constexpr const char* kBootBaseband = "BootBaseband";
inline constexpr const char* kBlockBasebandResets = "BlockBasebandResets";
inline constexpr const char* kLogScratchPath = "LogScratchPath";
inline constexpr const char* kLogSnapshotPath = "LogSnapshotPath";
inline constexpr const char* kCoreDumpOnSoftResetTimeout = "CoreDumpOnSoftResetTimeout";
inline constexpr const char* kStackshotOnShutdownTimeout = "StackshotOnShutdownTimeout";
inline constexpr const char* kBEDLogTimeout = "BEDLogTimeout";
inline constexpr const char* kCoexSupported = "CoexSupported";
inline constexpr const char* kRadioHealthSupported = "RadioHealthSupported";
inline constexpr const char* kPanicOnBasebandReset = "PanicOnBasebandReset";
inline constexpr const char* kNetworkPolicySupported = "NetworkPolicySupported";

[[nodiscard]] uint32_t unsignedKey(const char* key, uint32_t fallback);
[[nodiscard]] bool boolKey(const char* key, bool fallback);
[[nodiscard]] std::string textKey(const char* key, std::string fallback);

// A tri-state setting: 0 is no, 1 is yes, and any other (2, "automatic",
// when nothing is stored) is yes exactly when `radio` is one of
// `automaticRadios`.
[[nodiscard]] bool triStateKey(const char* key, uint32_t radio,
                               std::initializer_list<uint32_t> automaticRadios);

}  // namespace kel::internal
