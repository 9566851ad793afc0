#pragma once

#include "quorvex/format/Packet.h"

#include <ostream>
#include <string>
#include <vector>

namespace Quorvex::test {

/// What a Read-In constructor says when fewer than `below` bytes of payload are there.
struct Cut {
    unsigned below;
    std::string text;
};

/// One packet of a kind, with all fields distinct, and what is expected of it. Written by hand: nothing here is
/// computed by the library.
struct Sample {
    std::string name;
    CPacket* (*make)();
    std::string wire;            ///< as text, see bytes()
    std::vector<Cut> streamCuts; ///< in rising order
    std::vector<Cut> bufferCuts;
};

inline void PrintTo(const Sample& sample, std::ostream* out) {
    *out << sample.name;
}

/// At least one sample of every kind; several for kinds with several forms.
const std::vector<Sample>& samples();

/// Those that golden files show: every sort of field and of text, but not every kind, so that those files stay as they
/// are when a kind is added whose fields are like others'. What holds for all kinds is not tested by golden files.
std::vector<Sample> shownSamples();

} // namespace Quorvex::test
