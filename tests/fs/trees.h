// Trees of files for the tests of the tree operations: built with shell
// commands, read back as sorted relative paths.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kel::testing {

using Tree = std::vector<std::string>;

// Builds a tree in `root` with the shell commands `script`.
inline void makeTree(const std::string& root, const std::string& script) {
    ASSERT_EQ(std::system(("cd " + root + " && " + script).c_str()), 0) << script;
}

// Every path under `root` whose status `keep` accepts (links not followed),
// relative and sorted; none when `root` is missing.
inline Tree treeContents(const std::string& root, bool (*keep)(const struct stat&) = nullptr) {
    Tree paths;
    std::error_code missing;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root, missing)) {
        struct stat status {};
        if (keep == nullptr || (lstat(entry.path().c_str(), &status) == 0 && keep(status))) {
            paths.push_back(entry.path().lexically_relative(root).string());
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace kel::testing
