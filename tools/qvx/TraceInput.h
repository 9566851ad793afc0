#pragma once

#include "Verbs.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TracePages.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace Quorvex {
class Merged;
} // namespace Quorvex

namespace qvx {

class Inputs;
class Output;

using Quorvex::PacketPointer;

/// What makes a word the right one for a count: "s" but for one.
const char* plural(std::uint64_t count);

/// A trace file, or standard input for "-", and what the program says of it.
class TraceInput : public Quorvex::TraceFile {
public:
    explicit TraceInput(const std::string& path);

    /// How the trace ends, in words; known once next() has given null.
    std::string ending() const;
    /// As qvx::reportDamage().
    ExitCode reportDamage() const;
};

/// A trace of pages, any part of which is copied.
class PagesInput : public Quorvex::TracePages {
public:
    explicit PagesInput(const std::string& path);
};

/// Tells of damage and of a cut on standard error, each in one line; the exit code that follows from them.
ExitCode reportDamage(const Quorvex::TraceFile& trace);

/// Tells of what was stepped over in a trace that has been copied, and of an end that is missing; the exit code that
/// follows.
ExitCode reportDamage(const Quorvex::TracePages& pages, bool isEndMissing);

/// Does `work` with each of the traces by itself, whose text goes to the output. One that cannot be read is told of and
/// makes the verb fail when all others are done; else the exit code is the first that is not Done.
ExitCode eachByItself(const Inputs& inputs, Output& output,
                      const std::function<ExitCode(const std::string& file, std::ostream& out)>& work);

/// Adds all files to a merge.
void addAll(Quorvex::Merged& merged, const std::vector<std::string>& files);
/// Tells of damage and wrong ticks of all of them; the exit code that follows.
ExitCode reportDamage(const Quorvex::Merged& merged);

} // namespace qvx
