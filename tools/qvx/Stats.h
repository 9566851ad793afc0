#pragma once

#include "Inputs.h"
#include "Listing.h"
#include "Output.h"
#include "Selection.h"
#include "Verbs.h"

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace qvx {

class TraceInput;
class Verb;

/// What is told about.
enum class Topic : std::uint8_t { Functions, Threads, Processes, Cores, Interrupts, Counters, Bytes };

/// What is told of traces as a table, and how, as options.
struct StatsOptions {
    Inputs inputs;
    Topic topic = Topic::Functions;
    ListingFormat format = ListingFormat::Text;
    std::string sort;
    bool byThread = false;
    std::vector<std::string> before; ///< another run
    std::uint64_t rows = 40;         ///< shown to people who do not say how many they want
    /// The name of a function that the traces do not name; empty: none. Nobody is asked where it is empty.
    std::function<std::string(std::uint64_t id)> nameOf;
    Selection selection;
    Output output;

    /// Adds those about what is told.
    void addTo(Verb& verb);
    /// Throws Misuse where they do not go together.
    void check() const;
};

/// What is to be said of a trace that has been read; the exit code that follows.
using HasRead = std::function<ExitCode(const TraceInput& input)>;

/// Reads the traces and writes the table; the exit code of the last trace that had another than 0.
ExitCode tellStats(std::ostream& out, const StatsOptions& options, const std::vector<std::string>& files,
                   const HasRead& hasRead);

} // namespace qvx
