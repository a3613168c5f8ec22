// The thirteen run parameters: read from the parameter section of the mesh text or
// copied from the host's parameter block. Only hemisphereResolution is interpreted;
// the rest travel unchanged from input to output.
#pragma once

#include <cstdint>
#include <istream>

namespace hemiray {

struct RunParameters {
    int32_t param1 = 0;
    int32_t hemisphereResolution = 0;
    int32_t param3 = 0;
    double param4 = 0;
    int32_t param5 = 0;
    int32_t param6 = 0;
    double param7 = 0;
    int32_t param8 = 0;
    int32_t param9 = 0;
    double param10 = 0;
    int32_t param11 = 0;
    int32_t param12 = 0;
    int32_t param13 = 0;
};

// The host's parameter block: three doubles then ten int32, packed, 64 bytes.
// param13 stands before param12 here, the reverse of the text order.
struct HostParameterBlock {
    double param4;
    double param7;
    double param10;
    int32_t param1;
    int32_t hemisphereResolution;
    int32_t param3;
    int32_t param5;
    int32_t param6;
    int32_t param8;
    int32_t param9;
    int32_t param11;
    int32_t param13;
    int32_t param12;
};
static_assert(sizeof(HostParameterBlock) == 64, "the host block has no padding");

// Reads "(" and the thirteen values in table order, then skips anything up to the
// closing ")". True when that ")" was found; prints nothing.
[[nodiscard]] bool readParameterSection(std::istream& input, RunParameters& parameters);

// Copies the thirteen fields by name from the host block (which need not be aligned).
void copyParameterBlock(const void* block, RunParameters& parameters);

}  // namespace hemiray
