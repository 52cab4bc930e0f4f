// Shared test helpers: a scratch folder (under $TMPDIR, else /tmp) that is
// removed with everything in it, whole-file reads and their lines.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kel::testing {

class TempDir {
  public:
    TempDir() : path_(getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp") {
        path_ += "/kelhelperd-test-XXXXXX";
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// The whole content of `path`; empty when it cannot be read.
inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The lines of `text`, without their line feeds.
inline std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace kel::testing
