// The trace library with its scratch folder taken, as it stands, from
// KEL_TEST_SCRATCH_FOLDER, so that a test can give the folder any shape (no
// trailing '/', a missing parent). Stack reports would go to the same folder;
// the runs that use this double leave none.
#include <cstdlib>

#include "platform/trace/trace.h"

namespace kel::trace {

namespace {

const char* scratchFromEnvironment() {
    const char* folder = getenv("KEL_TEST_SCRATCH_FOLDER");
    return folder != nullptr ? folder : "";
}

}  // namespace

const char* const kScratchFolder = scratchFromEnvironment();
const char* const kSnapshotFolder = kScratchFolder;

bool isAllowed() {
    return false;
}

}  // namespace kel::trace
