// Replays every input that ever failed a fuzz target (fuzz/regressions/<target>/)
// through the same target, in the ordinary build: a finding that comes back
// crashes, trips a sanitizer or ends in an undefined message here.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "FuzzTargets.h"

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s REGRESSIONS_FOLDER\n", argv[0]);
        return 2;
    }
    int replayed = 0;
    for (const auto& folder : fs::directory_iterator(argv[1])) {
        const auto target = hemiray::fuzz::targetNamed(folder.path().filename().string());
        if (!target) continue;
        for (const auto& file : fs::directory_iterator(folder.path())) {
            std::ifstream in(file.path(), std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
            target(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++replayed;
        }
    }
    std::printf("%d inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
