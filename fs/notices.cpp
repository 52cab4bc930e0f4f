#include "fs/notices.h"

#include <functional>
#include <mutex>
#include <optional>
#include <unordered_set>

#include "platform/notice/notice.h"
#include "platform/telephony/build_kind.h"

namespace fsutil {

namespace {

struct BuildKind {
    bool carrier;
    bool internal;
};

// Asked once: the build does not change while the process runs.
const BuildKind& buildKind() {
    static const BuildKind sBuildKind{TelephonyUtilIsCarrierBuild(),
                                      TelephonyUtilIsInternalBuild()};
    return sBuildKind;
}

std::mutex sShownTitlesMutex;

// Hashes of the titles shown so far, under sShownTitlesMutex; only grows.
std::unordered_set<uint64_t>& shownTitles() {
    static std::unordered_set<uint64_t> sShownTitles;
    return sShownTitles;
}

// Records `title` as shown; false when it already was.
bool recordFirstShowing(const std::string& title) {
    const uint64_t hash = std::hash<std::string>{}(title);
    const std::lock_guard lock(sShownTitlesMutex);
    return shownTitles().insert(hash).second;
}

}  // namespace

void displayNotice(const std::string& title, const std::string& message, int32_t allowRepeat,
                   double timeoutSeconds) {
    const BuildKind& kind = buildKind();
    if (!kind.carrier && !kind.internal) {
        return;
    }
    if (allowRepeat == 0 && !recordFirstShowing(title)) {
        return;
    }
    const std::optional<std::string> header = notice::asciiText(title);
    const std::optional<std::string> body = notice::asciiText(message);
    if (header || body) {
        notice::showAlert(header.value_or(""), body.value_or(""), timeoutSeconds);
    }
}

}  // namespace fsutil
