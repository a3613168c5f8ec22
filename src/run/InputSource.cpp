// Input selection by name and the size section that opens every mesh text.
#include "run/InputSource.h"

#include <pstreams/pstream.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <vector>

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

// A decompressor's output, read in blocks of 1 MiB: PStreams' own buffer takes 30
// bytes per read call, millions of calls for a large model.
class PipeInput final : public std::istream {
public:
    PipeInput() : std::istream(nullptr), block_(putbackRoom + (std::size_t{1} << 20)) {}

    // False when the program cannot be started.
    bool open(const redi::pstreams::argv_type& argv) {
        if (!process_.open(argv.front(), argv, redi::pstreams::pstdout)) return false;
        buffer_.emplace(process_.output(), block_);
        rdbuf(&*buffer_);
        return true;
    }

private:
    static constexpr std::size_t putbackRoom = 16;

    class Process final : public redi::pstreambuf {
    public:
        int output() { return rpipe(rsrc_out); }
    };

    class BlockReadBuffer final : public std::streambuf {
    public:
        BlockReadBuffer(int fileDescriptor, std::vector<char>& block)
            : fileDescriptor_(fileDescriptor), block_(block) {
            char* start = block_.data() + putbackRoom;
            setg(start, start, start);
        }

    protected:
        int_type underflow() override {
            if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
            // The last characters stay in front of the new block for putback.
            const std::size_t kept = std::min<std::size_t>(gptr() - eback(), putbackRoom);
            char* start = block_.data() + putbackRoom;
            std::memmove(start - kept, gptr() - kept, kept);
            ssize_t got = 0;
            do {
                got = ::read(fileDescriptor_, start, block_.size() - putbackRoom);
            } while (got < 0 && errno == EINTR);
            if (got <= 0) return traits_type::eof();
            setg(start - kept, start, start + got);
            return traits_type::to_int_type(*gptr());
        }

    private:
        int fileDescriptor_;
        std::vector<char>& block_;
    };

    std::vector<char> block_;
    Process process_;  // closed (the decompressor waited for) after the buffer goes
    std::optional<BlockReadBuffer> buffer_;
};

// A decompressor's output as an input stream. The stream is failed when the file
// itself cannot be read: the program would only report that on its own standard
// error and hand us an empty stream, which would read as a malformed size section.
std::unique_ptr<std::istream> openPipe(redi::pstreams::argv_type argv, const std::string& name) {
    auto pipe = std::make_unique<PipeInput>();
    if (!std::ifstream(name).is_open()) {
        pipe->setstate(std::ios::failbit);
        return pipe;
    }
    // "--" ends the options, so a name that starts with "-" is still a file name.
    argv.push_back("--");
    argv.push_back(name);
    if (!pipe->open(argv)) pipe->setstate(std::ios::failbit);
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
