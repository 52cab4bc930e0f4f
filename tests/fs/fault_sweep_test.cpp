// Every operation of the library with each of its calls failing in turn: no
// failure leaves a descriptor open or a guard armed, the calls that must run
// under a guard do, and no operation reports success for work it left half
// done.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include <gmock/gmock.h>

#include "fs/directories.h"
#include "fs/file_contents.h"
#include "fs/locks.h"
#include "fs/ownership.h"
#include "fs/paths.h"
#include "tests/fs/trees.h"
#include "tests/support/call_recorder.h"
#include "tests/support/outside_probes.h"
#include "tests/support/temp_dir.h"

namespace kel::testing {
namespace {

// As root the owner changes to one that shows; otherwise to the same one, and
// every file counts as given away.
const bool kRoot = geteuid() == 0;
const uid_t kOwner = kRoot ? 4242 : geteuid();

// Each operation runs with its first, second, ... interposed call failing,
// until a run meets no failure, which must give true.
TEST(FaultSweepTest, EveryFailureIsAResult) {
    const auto isFile = [](const struct stat& status) { return !S_ISDIR(status.st_mode); };
    const auto isGivenAway = [](const struct stat& status) { return status.st_uid == kOwner; };
    const TempDir root;
    const std::string r = root.file("r");
    const struct {
        // Shell commands that make the files that r holds at the start of each run.
        std::string scene;
        std::function<bool()> run;
        // Whether the work is all there, after a run that gave true with the
        // call of the given function failing (none: "").
        std::function<bool(const std::string&)> done = [](auto&) { return true; };
    } kOperations[] = {
        // The operations that walk no tree, one after another.
        {"mkdir d && touch s && seq 1000 >data",
         [&] {
             Tree names;
             fsutil::listDirectory(r, names);
             return names.size() == 5 && fsutil::makeDirectory(r + "/d", 0755, false) &&
                    fsutil::makeDirectory(r + "/n", 0755, false) &&
                    fsutil::makeDirectory(r + "/a/b", 0755, true) &&
                    fsutil::changeOwner(r + "/s", getuid(), getgid()) &&
                    fsutil::changeMode(r + "/s", 0700) && fsutil::renamePath(r + "/s", r + "/m") &&
                    fsutil::removePath(r + "/m") &&
                    fsutil::copyFile(r + "/data", r + "/copy", /*copyMode=*/true) &&
                    fsutil::unlockAndClose(fsutil::lockShared(r + "/data"));
         },
         [&](auto&) { return readFile(r + "/copy") == readFile(r + "/data"); }},
        // Success with no work done is right only for a tree whose top tests
        // as missing, and for a folder that removeOlderThan cannot list.
        {"mkdir -p t/s && touch t/s/a t/s/b t/c", [&] { return fsutil::removeRecursive(r + "/t"); },
         [&](auto& injected) {
             return treeContents(r, isFile).size() == (injected == "stat" ? 3u : 0u);
         }},
        {"mkdir s && touch s/a s/b", [&] { return fsutil::removeOlderThan(r, 0); },
         // Of its two files, none is left, or both when the folder was not listed.
         [&](auto&) { return treeContents(r, isFile).size() != 1; }},
        {"mkdir -p t/s && touch t/s/a t/b",
         [&] { return fsutil::changeOwnerRecursive(r + "/t", kOwner, kOwner); },
         [&](auto& injected) {
             return treeContents(r + "/t", isGivenAway).size() ==
                    (injected == "stat" && kRoot ? 0u : 3u);
         }},
    };
    for (const auto& operation : kOperations) {
        makeTree(root.path(), "rm -rf scene && mkdir scene && cd scene && " + operation.scene);
        for (int failing = 0;; ++failing) {
            std::filesystem::remove_all(r);
            std::filesystem::copy(root.file("scene"), r, std::filesystem::copy_options::recursive);
            const long descriptors = openDescriptors(getpid());
            const CallRecorder recorder(InjectedFailure{"", failing});
            const bool result = operation.run();
            SCOPED_TRACE("operation " + std::to_string(&operation - kOperations) + ", call " +
                         std::to_string(failing) + " failing: " + recorder.injected);
            EXPECT_EQ(recorder.armedGuards, 0);
            // Only the data transfer of a copy runs unguarded.
            EXPECT_THAT(recorder.unguardedCalls,
                        ::testing::IsSubsetOf({"read", "copy_file_range"}));
            if (failing > 0 && recorder.injected.empty()) {
                break;
            }
            EXPECT_TRUE(failing > 0 || result);
            // done() reads the files through libc too, past the call made to fail.
            EXPECT_TRUE(!result || operation.done(recorder.injected)) << "work left undone";
            EXPECT_EQ(openDescriptors(getpid()), descriptors);
        }
    }
}

}  // namespace
}  // namespace kel::testing
