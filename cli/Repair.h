// `hemiray repair`: reads a result, balances its rows for reciprocity and closure
// (src/repair/) and writes the same kind of result with the model head unchanged.
#pragma once

#include <ostream>
#include <string>

#include "ResultFile.h"
#include "repair/ViewFactorRepair.h"

namespace hemiray::cli {

struct RepairArgs {
    std::string input;
    std::string output;
    std::string enclosure = "closed";
    std::string average = "weighted";
    bool force = false;
};

// The rows of a result as a glob-by-glob matrix (rows of inactive globs empty),
// with the glob areas and active flags. False with a message when a glob has two
// rows or a row is not a valid row of the model.
[[nodiscard]] bool resultMatrix(ResultFile& result, repair::CsrMatrix& F, std::vector<double>& area,
                                std::vector<uint8_t>& active, std::string& error);

// Runs the command, printing the report to `out`. False with a one-line message
// in `error`; nothing is written under the output name then.
[[nodiscard]] bool repairResult(const RepairArgs& args, std::ostream& out, std::string& error);

}  // namespace hemiray::cli
