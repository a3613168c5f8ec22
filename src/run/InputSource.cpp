// Input selection by name and the size section that opens every mesh text.
#include "run/InputSource.h"

#include <pstreams/pstream.h>
#include <fstream>

#include "input/SectionReader.h"

namespace hemiray {

bool namesGzip(const std::string& name) {
    return name.find(".gz") != std::string::npos;
}
bool namesCompress(const std::string& name) {
    return name.find(".Z") != std::string::npos;
}
bool namesHdf5(const std::string& name) {
    return name.find(".h5") != std::string::npos;
}

namespace {

// A decompressor's output as an input stream. The stream is failed when the file
// itself cannot be read: the program would only report that on its own standard
// error and hand us an empty stream, which would read as a malformed size section.
std::unique_ptr<std::istream> openPipe(redi::pstreams::argv_type argv, const std::string& name) {
    auto pipe = std::make_unique<redi::ipstream>();
    if (!std::ifstream(name).is_open()) {
        pipe->setstate(std::ios::failbit);
        return pipe;
    }
    // "--" ends the options, so a name that starts with "-" is still a file name.
    argv.push_back("--");
    argv.push_back(name);
    const std::string program = argv.front();
    pipe->open(program, argv, redi::pstreams::pstdout);
    if (!pipe->is_open()) pipe->setstate(std::ios::failbit);
    return pipe;
}

}  // namespace

std::unique_ptr<std::istream> openInputSource(const std::string& name) {
    if (namesGzip(name)) return openPipe({"gzip", "-dc"}, name);
    // zcat reads compress (.Z) files as well as gzip ones.
    if (namesCompress(name)) return openPipe({"zcat"}, name);
    return std::make_unique<std::ifstream>(name, std::ios::in);
}

bool readSizeSection(std::istream& input, SizeSection& sizes) {
    char c = 0;
    if (!(input >> c) || c != '(') return false;
    int32_t first = 0;
    input >> first;
    if (input && first == 0) {
        // "(0 word)" is a comment section: the word takes its ")" with it, so the
        // comment must be a single word.
        std::string comment;
        input >> comment;
        if (!(input >> c) || c != '(') return false;
        input >> first;
    }
    return readSizeValues(input, first, sizes);
}

bool readSizeValues(std::istream& input, int32_t first, SizeSection& sizes) {
    sizes.size1 = first;
    input >> sizes.size2 >> sizes.zoneCount >> sizes.globCount >> sizes.dimension;
    return skipExpression(input);
}

}  // namespace hemiray
