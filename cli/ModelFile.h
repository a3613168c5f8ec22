// Models as the tool meets them: what a file given as a model really is, reading
// it (text or packed block) with the library's readers without ending the
// process, and the faults that would make a run abort or go wrong.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ResultFile.h"

namespace hemiray::cli {

// Empty when `path` is a regular file that is not empty; otherwise one sentence
// naming the file and what it is.
[[nodiscard]] std::string fileRefusal(const std::string& path);

// Empty when `path` may be read as a model (a packed block when `block`); otherwise
// one sentence naming the file: not a regular file, empty, or recognisably another
// format, with the command that takes it.
[[nodiscard]] std::string inputRefusal(const std::string& path, bool block);

// Reads a packed block file whole and checks its head against its length.
[[nodiscard]] bool readBlockFile(const std::string& path, std::vector<std::byte>& block,
                                 std::string& error);

// Reads a model text (as the library reads it) or a packed block into `model`.
[[nodiscard]] bool readModel(const std::string& path, bool block, ResultFile& model,
                             std::string& error);

// The first fault of the model that a run would trip over, naming its zone and
// face; empty when there is none. Includes checkModelBounds.
[[nodiscard]] std::string findModelProblem(const ResultFile& model);

}  // namespace hemiray::cli
