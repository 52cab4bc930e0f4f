// The build-kind queries of a test executable: the build is what the
// environment variable KEL_TEST_BUILD_KIND names when asked: "carrier",
// "neither", or (unset) "internal".
#include <cstdlib>
#include <cstring>

#include "platform/telephony/build_kind.h"

extern "C" bool TelephonyUtilIsCarrierBuild() {
    const char* kind = std::getenv("KEL_TEST_BUILD_KIND");
    return kind != nullptr && std::strcmp(kind, "carrier") == 0;
}

extern "C" bool TelephonyUtilIsInternalBuild() {
    const char* kind = std::getenv("KEL_TEST_BUILD_KIND");
    return kind == nullptr || std::strcmp(kind, "internal") == 0;
}
