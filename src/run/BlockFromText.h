// A packed in-memory block from a model in the text form: what a host would hand
// over instead of the file. Used by "hemiray block" and the tests.
#pragma once

#include <cstddef>
#include <istream>
#include <string>
#include <vector>

namespace hemiray {

// Reads the size section, the parameter section and the mesh sections with the
// library's text readers and packs the model they fill. False with a message when
// the size or parameter section cannot be read; malformed mesh sections end the
// process with "file i/o error: ", as they do in a run.
[[nodiscard]] bool packTextModel(std::istream& text, std::vector<std::byte>& block,
                                 std::string& error);

}  // namespace hemiray
