// Scaffolding for tests that run the whole library on files: a scratch directory
// removed afterwards, whole-file reads, and a call of raytracing_lib that captures
// both console streams.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <unistd.h>

#include "hemiray/raytracing.h"

namespace hemiray::testing {

class ScratchDir {
public:
    ScratchDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "hemiray-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~ScratchDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    std::string file(const std::string& name) const { return (path_ / name).string(); }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

struct RunResult {
    int result = -1;
    std::string out;  // standard output
    std::string err;  // standard error
};

struct RunOptions {
    bool binary = false;
    bool useOpenMP = false;
    int threads = 1;
    const char* header = "test";
    bool headerFlag = false;
};

inline RunResult runLibrary(const std::string& name, const RunOptions& options = {}) {
    RunResult r;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    r.result = raytracing_lib(options.binary, name.c_str(), nullptr, options.useOpenMP,
                              options.threads, 1, nullptr, options.header, options.headerFlag,
                              false, 0);
    r.out = ::testing::internal::GetCapturedStdout();
    r.err = ::testing::internal::GetCapturedStderr();
    return r;
}

// The console lines without the two timing lines, whose numbers vary.
inline std::string withoutTimings(const std::string& console) {
    std::istringstream in(console);
    std::string line, kept;
    while (std::getline(in, line))
        if (line.rfind("# CPU  time: ", 0) != 0 && line.rfind("# Wall time: ", 0) != 0)
            kept += line + '\n';
    return kept;
}

}  // namespace hemiray::testing
