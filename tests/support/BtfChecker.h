#pragma once

#include <string>
#include <vector>

namespace Quorvex::test {

/// What is illegal in a BTF file in symbolic mode, as "line 7: time goes back"; empty for a legal one. Knows the types,
/// events and source rules of cores, tasks, interrupts, runnables, signals and stimuli, and nothing of the writer.
std::vector<std::string> checkBtf(const std::string& text);

} // namespace Quorvex::test
