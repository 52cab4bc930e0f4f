// Runs a command-line tool to its end, as a user would from a shell, for the
// benchmarks that time a whole tool beside a library call.
#pragma once

#include <spawn.h>
#include <sys/wait.h>

#include <string>
#include <vector>

extern char** environ;

// `arguments[0]` is looked up in PATH. False when the tool could not be
// started or did not exit with status 0.
inline bool runTool(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t child;
    int status = -1;
    return posix_spawnp(&child, argv[0], nullptr, nullptr, argv.data(), environ) == 0 &&
           waitpid(child, &status, 0) == child && status == 0;
}
