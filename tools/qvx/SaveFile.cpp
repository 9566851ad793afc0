#include "SaveFile.h"

#include "Verbs.h"
#include "quorvex/platform/System.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>

namespace qvx {

using namespace Quorvex;

namespace {

using Variable = CVCDWriter::Variable;
using Meaning = CVCDWriter::Meaning;

class File {
public:
    File(const std::string& path, bool force) : m_path(path) {
        if (!force && std::filesystem::exists(path))
            throw Failure(path, "exists; use --force to overwrite it");
        errno = 0;
        m_file.open(path, std::ios::binary);
    }
    std::ostream& out() { return m_file; }
    void close() {
        m_file.close();
        if (m_file.fail())
            throw Failure(m_path, platform::errorText(errno ? errno : EIO));
    }

private:
    std::string m_path;
    std::ofstream m_file;
};

/// Bytes that GTKWave does not show are replaced.
std::string shown(std::string name) {
    for (char& c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E)
            c = '?';
    }
    return name;
}

/// One file of names a meaning of numbers, made when it is first asked for.
class Translations {
public:
    Translations(const std::string& base, const CVCDWriter& writer, bool force)
        : m_base(base), m_writer(writer), m_force(force) {}

    /// The path of the file for a variable; empty when its numbers have no names.
    std::string fileFor(const Variable& variable) {
        switch (variable.meaning) {
        case Meaning::Function:
            return file("functions", CTraceNames::Sort::Function, 0, ~std::uint64_t{0});
        case Meaning::Process:
            return file("processes", CTraceNames::Sort::Process, 0, ~std::uint64_t{0});
        case Meaning::State:
            return file(fmt::format("states_{}", variable.stateMachine), CTraceNames::Sort::State,
                        CTraceNames::pair(variable.stateMachine, 0), CTraceNames::pair(variable.stateMachine, ~0U));
        default:
            return {};
        }
    }

private:
    std::string file(const std::string& what, CTraceNames::Sort sort, std::uint64_t first, std::uint64_t last) {
        auto [at, isNew] = m_paths.try_emplace(what);
        if (!isNew)
            return at->second;
        File file(at->second = std::filesystem::absolute(m_base + "." + what + ".txt").generic_string(), m_force);
        const auto& names = m_writer.names().all();
        for (auto name = names.lower_bound({sort, first}); name != names.end() && name->first.first == sort; ++name) {
            if (name->first.second <= last)
                fmt::print(file.out(), "{:08X} {}\n", name->first.second & 0xFFFFFFFF, shown(name->second));
        }
        file.close();
        return at->second;
    }

    std::string m_base;
    const CVCDWriter& m_writer;
    bool m_force;
    std::map<std::string, std::string> m_paths;
};

} // namespace

void writeSaveFile(const std::string& path, const std::string& dump, const CVCDWriter& writer, bool force) {
    File save(path, force);
    std::ostream& out = save.out();
    // GTKWave counts by the power of two of a frame of 200 pixels: the whole time in about a thousand of them.
    const double zoom = -std::log2(std::max(1.0, static_cast<double>(writer.duration()) / 5));
    fmt::print(out, "[dumpfile] \"{}\"\n[timestart] 0\n[size] 1400 800\n[pos] -1 -1\n*{:.6f} -1",
               std::filesystem::absolute(dump).generic_string(), zoom);
    for (char marker = 'a'; marker <= 'z'; ++marker)
        out << " -1";
    out << "\n[sst_expanded] 0\n[signals_width] 240\n";
    Translations translations(path, writer, force);
    std::string group;
    for (const Variable& variable : writer.variables()) {
        if (variable.isDetail)
            continue;
        const std::string scope = variable.path.substr(0, variable.path.rfind('.'));
        if (scope != group) {
            group = scope;
            fmt::print(out, "@200\n-{}\n", scope.substr(scope.find('.') + 1));
        }
        // How GTKWave is told the look of a variable: 24 decimal, 22 hexadecimal, 28 binary, 2000 more with names, 8000
        // more as a line of steps, for which 20000 gives room.
        const std::string names = translations.fileFor(variable);
        const bool isDepth = variable.path.ends_with("depth");
        if (!names.empty())
            fmt::print(out, "@2022\n^1 {}\n", names);
        else
            out << (isDepth                              ? "@8024\n"
                    : variable.width == 1                ? "@28\n"
                    : variable.meaning != Meaning::Value ? "@24\n"
                                                         : "@22\n");
        out << variable.path << '\n';
        if (isDepth)
            out << "@20000\n-\n-\n";
    }
    save.close();
}

} // namespace qvx
