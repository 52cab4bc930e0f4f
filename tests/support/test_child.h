// Runs the current test again in a child process, for what a test cannot do
// in its own: die, start from a given environment, or take a file system of
// its own. The child is this executable filtered to the test, with
// KEL_TEST_CHILD set to `argument`; childArgument() gives it back there, and
// null in the test's own process.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace kel::testing {

inline const char* childArgument() {
    return getenv("KEL_TEST_CHILD");
}

// The child's wait status. `wrapper`, when given, is a command that runs the
// command line that follows it, such as "env NAME=value".
inline int runTestAgain(const std::string& argument, const std::string& wrapper = "") {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    // The child's scratch folders go into one of this process's, which takes
    // them along also when the child dies without removing them. The child may
    // run as another user.
    const TempDir scratch;
    chmod(scratch.path().c_str(), 01777);
    return std::system(("exec " + wrapper + " env TMPDIR=" + scratch.path() + " KEL_TEST_CHILD='" +
                        argument + "' " + std::filesystem::read_symlink("/proc/self/exe").string() +
                        " --gtest_filter='" + test->test_suite_name() + "." + test->name() + "'")
                           .c_str());
}

// As runTestAgain, with the child as root of a user namespace with a mount
// namespace of its own, where a fresh tmpfs of `size` is mounted on `folder`
// (also the child's argument).
inline int runTestAgainOnTmpfs(const std::string& folder, const std::string& size) {
    return runTestAgain(
        folder, "unshare --user --map-root-user --mount sh -c 'mount -t tmpfs -o size=" + size +
                    " kel " + folder + " && exec \"$@\"' sh");
}

}  // namespace kel::testing
