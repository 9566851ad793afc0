#pragma once

#include <istream>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

class ImportedTrace;

/// A format of another tool, of which traces are made.
struct Importer {
    std::string_view name;        ///< by which people ask for it: "chrome"
    std::string_view description; ///< "Chrome trace events (JSON)"
    /// Whether a file is of it, by how it begins.
    bool (*takes)(std::string_view head);
    /// Tells the trace what stands in a file. Damage is stepped over or ends it, and is counted as lost. Throws Failure
    /// for a file that is something else.
    void (*read)(std::istream& in, const std::string& name, ImportedTrace& trace) = nullptr;
    /// The same of a directory, for formats that are one; those have no read.
    void (*readDirectory)(const std::string& name, ImportedTrace& trace) = nullptr;
};

/// All of them; that of text without other marks comes last.
const std::vector<Importer>& importers();

void readChromeJson(std::istream& in, const std::string& name, ImportedTrace& trace);
void readCtf(const std::string& name, ImportedTrace& trace);
void readFoldedStacks(std::istream& in, const std::string& name, ImportedTrace& trace);
void readPerfScript(std::istream& in, const std::string& name, ImportedTrace& trace);
void readValueChanges(std::istream& in, const std::string& name, ImportedTrace& trace);

} // namespace qvx
