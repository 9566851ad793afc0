#pragma once

#include "Output.h"
#include "quorvex/export/VCDWriter.h"

#include <map>
#include <string>

namespace qvx {

/// What sets GTKWave up to show a dump: its most telling variables, with names in the place of numbers. The names stand
/// in files beside it, its path followed by what they name. All functions throw Failure.
class SaveFile {
public:
    /// Makes sure that all files that may be written can be, and are not claimed.
    SaveFile(const std::string& path, bool force, Claims& claims);

    void open() { m_save.open(); }
    void write(const std::string& dump, const Quorvex::CVCDWriter& writer);
    /// Puts all files in place.
    void commit();

private:
    /// A file of names.
    struct Names {
        Names(const std::string& path, bool force, Claims& claims) : target(path, force, claims) {}

        Target target;
        bool isUsed = false;
    };

    Names& names(const std::string& what);
    /// The path of the file of names for a variable; empty when its numbers have no names.
    std::string namesOf(const Quorvex::CVCDWriter::Variable& variable, const Quorvex::CVCDWriter& writer);
    std::string writeNames(const std::string& what, Quorvex::TextSort sort, std::uint64_t first, std::uint64_t last,
                           const Quorvex::CVCDWriter& writer);

    std::string m_path;
    bool m_force;
    Claims& m_claims;
    Target m_save;
    std::map<std::string, Names> m_names; ///< by what they name
};

} // namespace qvx
