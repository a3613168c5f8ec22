// libFuzzer entry: the target is chosen when the binary is built.
#include "FuzzTargets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const hemiray::fuzz::Target target = hemiray::fuzz::targetNamed(HEMIRAY_FUZZ_TARGET);
    target(data, size);
    return 0;
}
