// HDF5 files as h5dump (Debian's hdf5-tools) prints them, so that the layout the
// library writes is compared with the documented one by a reader that knows
// nothing of our code.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace hemiray::testing {

// h5dump's text of the file without its first line, which names the file.
inline std::string h5dump(const std::string& path, const std::string& options = "") {
    FILE* pipe = popen(("h5dump " + options + " " + path + " 2>&1").c_str(), "r");
    std::string out;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    EXPECT_EQ(pclose(pipe), 0) << out;
    return out.substr(out.find('\n') + 1);
}

// The values of a dataset ("-d /name") or attribute ("-a /name") in storage order,
// doubles to the last bit.
inline std::vector<double> h5values(const std::string& path, const std::string& object) {
    const std::string dump = h5dump(path, "-y -w 0 -m %.17g " + object);
    std::istringstream in(dump.substr(dump.find("DATA {") + 6));
    std::vector<double> values;
    char separator = ',';
    for (double v; separator == ',' && in >> v >> separator;) values.push_back(v);
    return values;
}

}  // namespace hemiray::testing
