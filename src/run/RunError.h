// The one place a run reports a failure: an "error: " line on standard error. The
// last message is also kept for the calling thread, so that front ends which
// report errors their own way (Python exceptions, the tool's exit status) can
// fetch it instead of parsing standard error.
#pragma once

#include <string>

namespace hemiray {

void reportRunError(const std::string& message);

// The message of the calling thread's last reportRunError; empty before the first.
const std::string& lastRunError();

// Forgets the calling thread's last message, so that a front end can tell whether
// the call it makes next reported one.
void clearRunError();

}  // namespace hemiray
