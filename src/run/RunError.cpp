#include "run/RunError.h"

#include <iostream>

namespace hemiray {

namespace {
thread_local std::string lastMessage;
}  // namespace

void reportRunError(const std::string& message) {
    lastMessage = message;
    std::cerr << "error: " << message << std::endl;
}

const std::string& lastRunError() {
    return lastMessage;
}

void clearRunError() {
    lastMessage.clear();
}

}  // namespace hemiray
