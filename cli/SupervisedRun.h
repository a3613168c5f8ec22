// `hemiray run` under supervision: the library computes in a child process inside
// a private folder beside the output, and only a finished result is moved over the
// output name. Whatever ends the run otherwise (the library's own exit on bad
// input, an abort, Ctrl-C, SIGTERM, SIGHUP, a closed terminal) leaves the output
// name and every file of the user's as they were, and nothing else behind.
#pragma once

#include <string>

namespace hemiray::cli {

struct RunRequest {
    std::string input;
    std::string output;
    int threads = 1;
    bool binary = false;
    bool block = false;   // the input is a packed block, handed over in memory
    bool direct = false;  // ... as a direct block pointing into it
    std::string header;
};

// Exit status: 0 with the result in place; 1 when the run failed (one "hemiray: "
// line after the library's own); 128 + N when signal N (SIGINT, SIGTERM, SIGHUP)
// stopped it.
int superviseRun(const RunRequest& request);

}  // namespace hemiray::cli
