// The run parameters, from the text's parameter section or the host's block. Both
// forms end in the same RunParameters, so the run and its output head cannot tell
// which one was used.
#include "input/ParameterSection.h"

#include <cstring>

#include "input/SectionReader.h"

namespace hemiray {

bool readParameterSection(std::istream& input, RunParameters& parameters) {
    char c = 0;
    input >> c;
    if (!input || c != '(') return false;

    // A value that does not parse fails the stream; the reads after it do nothing and
    // the search for ")" below fails at once.
    input >> parameters.param1 >> parameters.hemisphereResolution >> parameters.param3 >>
        parameters.param4 >> parameters.param5 >> parameters.param6 >> parameters.param7 >>
        parameters.param8 >> parameters.param9 >> parameters.param10 >> parameters.param11 >>
        parameters.param12 >> parameters.param13;

    // Anything after the thirteenth value, nested expressions included, is skipped.
    return skipExpression(input);
}

void copyParameterBlock(const void* block, RunParameters& parameters) {
    // The host's pointer carries no alignment promise; copy the bytes out first.
    HostParameterBlock host;
    std::memcpy(&host, block, sizeof host);
    // By name, not by position: the block stores param13 before param12.
    parameters.param1 = host.param1;
    parameters.hemisphereResolution = host.hemisphereResolution;
    parameters.param3 = host.param3;
    parameters.param4 = host.param4;
    parameters.param5 = host.param5;
    parameters.param6 = host.param6;
    parameters.param7 = host.param7;
    parameters.param8 = host.param8;
    parameters.param9 = host.param9;
    parameters.param10 = host.param10;
    parameters.param11 = host.param11;
    parameters.param12 = host.param12;
    parameters.param13 = host.param13;
}

}  // namespace hemiray
