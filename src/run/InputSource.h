// Where a run's text comes from and where its result goes: plain files, or gzip
// and zcat pipes chosen by the file name, started from argument vectors so that no
// character of a name is ever interpreted by a shell.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

namespace hemiray {

// The name rules: substring searches anywhere in the name, ".gz" before ".Z".
[[nodiscard]] bool namesGzip(const std::string& name);
[[nodiscard]] bool namesCompress(const std::string& name);
[[nodiscard]] bool namesHdf5(const std::string& name);

// Opens the input named by the rules above. The result is never null; on failure
// its fail state is set (a missing or unreadable file, a decompressor that cannot
// be started).
std::unique_ptr<std::istream> openInputSource(const std::string& name);

// The five size values that precede the parameter section in a mesh text.
struct SizeSection {
    int32_t size1 = 0;
    int32_t size2 = 0;
    int32_t zoneCount = 0;  // size value 3
    int32_t globCount = 0;  // size value 4: the width of every row
    int32_t dimension = 0;  // 1 axisymmetric, 2 planar, 3 three-dimensional
};

// Reads "(" five ints ... ")", optionally preceded by a one-word comment section
// "(0 word)". False when an expected "(" is missing or the section is not closed.
[[nodiscard]] bool readSizeSection(std::istream& input, SizeSection& sizes);

// The rest of a size section once its "(" and first value are read: the four
// other values, then everything up to the section's ")".
[[nodiscard]] bool readSizeValues(std::istream& input, int32_t first, SizeSection& sizes);

}  // namespace hemiray
