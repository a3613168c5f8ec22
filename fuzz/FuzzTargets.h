// The readers under fuzzing: each target takes one input as bytes. Bad input must
// end in one of the library's defined messages (thrown, under
// ScopedInputErrorsThrow, instead of ending the process) or in a reader's error;
// anything else (a crash, a sanitizer report, another message) is a finding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace hemiray::fuzz {

using Target = void (*)(const uint8_t* data, size_t size);

// "model_text", "block", "result_text"; null for another name.
Target targetNamed(const std::string& name);

}  // namespace hemiray::fuzz
