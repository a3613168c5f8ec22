// Scaffolding for tests that run the whole library: a scratch directory removed
// afterwards, whole-file reads and writes, a model text of the example cases, and
// a call of raytracing_lib that captures both console streams.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "hemiray/raytracing.h"
#include "models/ExampleModels.h"
#include "run/BlockFromText.h"

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

// A file of the hand-written expected results.
inline std::string goldenPath(const std::string& name) {
    return std::string(HEMIRAY_TEST_DATA_DIR) + "/golden/" + name;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline size_t fileCount(const std::filesystem::path& folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

// The input text of an example case of the hemiray tool.
inline std::string exampleText(const std::string& name, int n, int resolution) {
    models::Model model;
    EXPECT_TRUE(models::makeExample(name, n, resolution, model)) << name;
    std::ostringstream text;
    models::writeModelText(text, model);
    return text.str();
}

// The text packed into an in-memory block.
inline std::vector<std::byte> packText(const std::string& text) {
    std::istringstream input(text);
    std::vector<std::byte> block;
    std::string error;
    EXPECT_TRUE(packTextModel(input, block, error)) << error;
    return block;
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
    bool fromFile = true;  // false: the mesh comes from `block`
    const void* block = nullptr;
    bool directFields = false;  // the block's family
};

inline RunResult runLibrary(const std::string& name, const RunOptions& options = {}) {
    RunResult r;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    r.result = raytracing_lib(options.binary, name.c_str(), nullptr, options.useOpenMP,
                              options.threads, options.fromFile, options.block, options.header,
                              options.headerFlag, options.directFields, 0);
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
