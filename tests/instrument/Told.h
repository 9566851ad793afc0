#pragma once

namespace Quorvex::test {

/// That many sites have so many names, the first ones twice. Names are numbers from 0 on.
constexpr unsigned kSites = 2000, kNames = 1500;

/// Tell of themselves what RecordTest.cpp expects. Their results are 0, or else what is no matter of recording is
/// wrong.
int tellInCpp(const char* name);
int tellNothing(const char* name); ///< the same, compiled to record nothing
extern "C" int tellInC(const char* name);

} // namespace Quorvex::test
