// Repair of a result file. The model head of a view-factor file is copied byte for
// byte up to its row section; an HDF5 result gets every object but the rows copied.
#include "Repair.h"

#include "ErrorBands.h"

#include <hdf5.h>
#include <cctype>
#include <filesystem>
#include <iomanip>
#include <istream>

#include "SparseRowVector"
#include "geometry/FaceGeometry.h"
#include "input/SectionReader.h"
#include "output/Hdf5Handles.h"
#include "output/Hdf5Layout.h"
#include "output/Hdf5ResultWriter.h"
#include "output/ViewFactorWriter.h"
#include "run/InputSource.h"
#include "run/OutputSink.h"

namespace hemiray::cli {

namespace fs = std::filesystem;

namespace {

// Copies the text of a view-factor file up to the "(" of its row section (308 or
// 1308) at the outer level. Parentheses inside double quotes (the comment section)
// do not count.
bool copyHead(std::istream& in, std::ostream& out) {
    int depth = 0;
    bool quoted = false;
    bool deciding = false;  // after a "(" at the outer level, until its id is read
    std::string pending;    // that "(" and what followed it
    std::string id;
    char c = 0;
    while (in.get(c)) {
        if (deciding) {
            const bool space = std::isspace(static_cast<unsigned char>(c)) != 0;
            const bool digit = std::isdigit(static_cast<unsigned char>(c)) != 0;
            if (digit || (space && id.empty())) {
                pending.push_back(c);
                if (digit) id.push_back(c);
                continue;
            }
            if (id == "308" || id == "1308") return static_cast<bool>(out);
            out << pending;
            deciding = false;
            depth = 1;
        }
        if (quoted) {
            if (c == '"') quoted = false;
        } else if (c == '"') {
            quoted = true;
        } else if (c == '(' && depth == 0) {
            deciding = true;
            pending.assign(1, c);
            id.clear();
            continue;
        } else if (c == '(') {
            ++depth;
        } else if (c == ')') {
            --depth;
        }
        out.put(c);
    }
    return false;
}

void fillRow(const repair::CsrMatrix& F, int32_t glob, SparseRowVector& row) {
    row.clear();
    for (int64_t k = F.rowStart[glob]; k < F.rowStart[glob + 1]; ++k)
        row.add(F.columns[k], F.values[k]);
}

bool writeText(const RepairArgs& args, const ResultFile& result, const repair::CsrMatrix& F,
               std::string& error) {
    auto in = openInputSource(args.input);
    OutputSink sink(args.output, result.binaryRows);
    if (in->fail() || !sink.ok()) {
        error = "cannot write " + args.output;
        return false;
    }
    std::ostream& out = sink.stream();
    if (!copyHead(*in, out)) {
        error = "cannot copy the model of " + args.input;
        return false;
    }
    writeRowSectionHeader(out, result.binaryRows, result.activeGlobs);
    SparseRowVector row;
    row.resize(result.sizes.globCount);
    for (const int32_t glob : result.activeGlobs) {
        fillRow(F, glob, row);
        writeRow(out, result.binaryRows, row);
    }
    out << "))" << std::endl;
    if (!sink.commit()) {
        error = "cannot write " + args.output;
        return false;
    }
    return true;
}

herr_t copyAttribute(hid_t source, const char* name, const H5A_info_t*, void* target) {
    const Hdf5Id from(H5Aopen(source, name, H5P_DEFAULT), H5Aclose);
    const Hdf5Id type(H5Aget_type(from.get()), H5Tclose);
    const Hdf5Id space(H5Aget_space(from.get()), H5Sclose);
    if (!from.valid() || !type.valid() || !space.valid()) return -1;
    std::vector<char> bytes(static_cast<size_t>(H5Aget_storage_size(from.get())) + 1);
    const Hdf5Id to(H5Acreate2(*static_cast<hid_t*>(target), name, type.get(), space.get(),
                               H5P_DEFAULT, H5P_DEFAULT),
                    H5Aclose);
    if (!to.valid() || H5Aread(from.get(), type.get(), bytes.data()) < 0 ||
        H5Awrite(to.get(), type.get(), bytes.data()) < 0)
        return -1;
    return 0;
}

herr_t copyObject(hid_t source, const char* name, const H5L_info_t*, void* target) {
    if (std::string(name) == hdf5layout::viewFactors) return 0;
    return H5Ocopy(source, name, *static_cast<hid_t*>(target), name, H5P_DEFAULT, H5P_DEFAULT) < 0
               ? -1
               : 0;
}

// The rows through the library's writer into a file beside the output, then the
// rest of the input's objects and root attributes copied in, then the rename.
bool writeHdf5(const RepairArgs& args, const ResultFile& result, const repair::CsrMatrix& F,
               std::string& error) {
    const std::string partial = args.output + ".hemiray-repair-partial";
    bool written = false;
    {
        Hdf5ResultWriter writer(partial);
        if (writer.ok()) {
            writer.beginRows(result.activeGlobs, result.sizes.globCount);
            SparseRowVector row;
            row.resize(result.sizes.globCount);
            for (const int32_t glob : result.activeGlobs) {
                fillRow(F, glob, row);
                writer.appendRow(row);
            }
        }
        written = writer.close();
    }
    if (written) {
        const Hdf5ErrorsSilenced quiet;
        const Hdf5Id source(H5Fopen(args.input.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
        Hdf5Id target(H5Fopen(partial.c_str(), H5F_ACC_RDWR, H5P_DEFAULT), H5Fclose);
        hid_t targetId = target.get();
        hsize_t index = 0;
        written = source.valid() && target.valid() &&
                  H5Aiterate2(source.get(), H5_INDEX_NAME, H5_ITER_INC, &index, copyAttribute,
                              &targetId) >= 0;
        if (written) {
            H5_index_t order = H5_INDEX_NAME;
            written =
                H5Literate(source.get(), order, H5_ITER_INC, nullptr, copyObject, &targetId) >= 0;
        }
        written = target.reset() && written;
    }
    std::error_code ec;
    if (written) fs::rename(partial, args.output, ec);
    if (!written || ec) {
        fs::remove(partial, ec);
        error = "cannot write " + args.output;
        return false;
    }
    return true;
}

void printResiduals(std::ostream& out, const char* when, const repair::Residuals& r, bool open) {
    out << std::scientific << std::setprecision(3) << when << " closure: largest "
        << (open ? "row sum above 1 " : "|row sum - 1| ") << r.worstClosure << ", area-weighted "
        << r.weightedClosure << "; reciprocity: largest " << r.worstReciprocity
        << ", share of exchanged energy " << r.weightedReciprocity << '\n';
}

bool namesHdf5(const std::string& name) {
    return name.find(".h5") != std::string::npos;
}

}  // namespace

bool resultMatrix(ResultFile& result, repair::CsrMatrix& F, std::vector<double>& area,
                  std::vector<uint8_t>& active, std::string& error) {
    const int32_t globCount = std::max(result.sizes.globCount, 0);
    computeFaceGeometry(result.participatingFaces);
    area = globSurfaceAreas(result.participatingFaces, globCount);
    active.assign(static_cast<size_t>(globCount), 0);
    std::vector<int64_t> rowOf(static_cast<size_t>(globCount), -1);
    for (size_t r = 0; r < result.activeGlobs.size(); ++r) {
        const int32_t glob = result.activeGlobs[r];
        if (glob < 0 || glob >= globCount || active[glob]) {
            error = "glob " + std::to_string(glob) +
                    (active[glob] ? " has two rows" : " is outside the glob count");
            return false;
        }
        active[glob] = 1;
        rowOf[glob] = static_cast<int64_t>(r);
    }
    F = repair::CsrMatrix{};
    F.rowStart.assign(static_cast<size_t>(globCount) + 1, 0);
    for (int32_t g = 0; g < globCount; ++g) {
        if (rowOf[g] >= 0) {
            const SparseRow& row = result.rows[static_cast<size_t>(rowOf[g])];
            F.columns.insert(F.columns.end(), row.columns.begin(), row.columns.end());
            F.values.insert(F.values.end(), row.values.begin(), row.values.end());
        }
        F.rowStart[g + 1] = static_cast<int64_t>(F.columns.size());
    }
    return repair::validateMatrix(F, area, active, error);
}

bool repairResult(const RepairArgs& args, std::ostream& out, std::string& error) {
    if (args.enclosure != "closed" && args.enclosure != "open") {
        error = "--enclosure must be closed or open";
        return false;
    }
    if (args.average != "equal" && args.average != "weighted") {
        error = "--average must be equal or weighted";
        return false;
    }
    if (!fs::exists(args.input)) {
        error = "no such file: " + args.input;
        return false;
    }
    std::error_code ec;
    if (fs::exists(args.output) && !args.force) {
        error = args.output + " exists; use --force to replace it";
        return false;
    }
    ResultFile result;
    try {
        const ScopedInputErrorsThrow throwing;
        if (!readResultFile(args.input, result, error)) {
            error = args.input + ": " + error;
            return false;
        }
    } catch (const InputError& e) {
        error = args.input + ": " + e.what();
        return false;
    }
    if (result.hdf5 != namesHdf5(args.output) || namesGzip(args.input) != namesGzip(args.output)) {
        error = args.output + " does not name the kind of result " + args.input +
                " is (.h5 for HDF5, .gz for compressed text, else plain text)";
        return false;
    }
    repair::CsrMatrix F, repaired;
    std::vector<double> area;
    std::vector<uint8_t> active;
    repair::RepairOptions options;
    options.enclosure =
        args.enclosure == "open" ? repair::Enclosure::open : repair::Enclosure::closed;
    repair::RepairReport report;
    if (!resultMatrix(result, F, area, active, error)) {
        error = args.input + ": " + error;
        return false;
    }
    if (args.average == "weighted") options.estimateWeight = lawWeights(result, area);
    if (!repair::repairViewFactors(F, area, active, options, repaired, report, error)) {
        error = args.input + ": " + error;
        return false;
    }
    if (!(result.hdf5 ? writeHdf5(args, result, repaired, error)
                      : writeText(args, result, repaired, error)))
        return false;

    const bool open = options.enclosure == repair::Enclosure::open;
    out << "repaired " << result.activeGlobs.size() << " rows of " << result.sizes.globCount
        << " globs as " << (open ? "an open domain" : "a closed enclosure") << " in "
        << report.sweeps << " sweeps" << (report.converged ? "" : " (not converged)") << '\n';
    if (!report.converged)
        out << "warning: no scaling balances these rows exactly (the pattern of non-zero factors "
               "would need some of them to vanish); written as far as the balancing got\n";
    printResiduals(out, "before:", report.before, open);
    printResiduals(out, "after: ", report.after, open);
    out << "largest change of a factor: " << report.largestChange << " (glob "
        << report.largestChangeRow << " to glob " << report.largestChangeColumn << ")\n";
    if (report.addedEntries > 0)
        out << "entries added for pairs seen from one side only: " << report.addedEntries << '\n';
    if (open)
        out << "energy removed by capping rows at 1: "
            << (report.energyBefore > 0 ? 1 - report.energyAfter / report.energyBefore : 0.0)
            << " of the exchanged energy\n";
    if (report.emptyRows > 0)
        out << "rows left empty (no ray landed, and no glob sees them): " << report.emptyRows
            << '\n';
    if (report.keptRows > 0)
        out << "rows of globs without area, copied unchanged: " << report.keptRows << '\n';
    if (!result.hdf5)
        out << "note: "
            << (result.binaryRows ? "binary rows hold single-precision factors (7 digits)"
                                  : "text rows hold 6 decimals")
            << ", so residuals of about " << (result.binaryRows ? "1e-7" : "1e-6") << " survive in "
            << args.output << "; an .h5 result keeps the repair exact\n";
    out << "result: " << args.output << std::defaultfloat << std::endl;
    return true;
}

}  // namespace hemiray::cli
