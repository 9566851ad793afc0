#include "SaveFile.h"

#include "Print.h"
#include "Verbs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>
#include <utility>

namespace qvx {

using namespace Quorvex;

namespace {

using Variable = CVCDWriter::Variable;
using Meaning = CVCDWriter::Meaning;

/// GTKWave ends when it meets a name of some kilobytes.
constexpr std::size_t kLongestName = 1000;

/// Bytes that GTKWave does not show are replaced; a long name is cut.
std::string forViewer(std::string name) {
    name.resize(std::min(name.size(), kLongestName));
    for (char& c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E)
            c = '?';
    }
    return name;
}

constexpr char kEnd[] = ".txt";

/// How GTKWave is told the look of a variable.
enum Look : unsigned {
    Plain = 0x20, ///< with its digits to the right
    Hexadecimal = 0x22,
    Decimal = 0x24,
    Binary = 0x28,
    Signed = 0x400, ///< beside Decimal
    Names = 0x2000, ///< from a file
    Steps = 0x8000, ///< a line of steps,
    Room = 0x20000, ///< for which this, on a line by itself, gives room
};

unsigned lookOf(const Variable& variable, bool hasNames) {
    switch (variable.meaning) {
    case Meaning::Depth:
        return Steps | Decimal;
    case Meaning::Counter:
        return Steps | (variable.counterType == CounterType::Double   ? Plain
                        : variable.counterType == CounterType::Signed ? Signed | Decimal
                                                                      : unsigned{Decimal});
    case Meaning::Address:
        return Hexadecimal;
    case Meaning::Value:
        return variable.width == 1 ? Binary : Hexadecimal;
    default:
        return hasNames ? Names | Hexadecimal : unsigned{Decimal};
    }
}

/// The same where braces would end the text.
std::string forAlias(const std::string& text) {
    std::string alias = forViewer(text);
    std::ranges::replace_if(
        alias, [](char c) { return c == '{' || c == '}' || c == '\\'; }, '?');
    return alias;
}

} // namespace

SaveFile::SaveFile(const std::string& path, bool force, Claims& claims)
    : m_path(path), m_force(force), m_claims(claims), m_save(path, force, claims) {
    if (!m_save.isFile())
        throw Failure(path, "is no file that others could stand beside");
    names("functions");
    names("processes");
    // Of the state machines, it shows only later which there are.
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    const std::string begin = std::filesystem::path(path).filename().string() + ".";
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory.empty() ? "." : directory, error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with(begin + "states_") && name.ends_with(kEnd))
            names(name.substr(begin.size(), name.size() - begin.size() - (sizeof kEnd - 1)));
    }
}

SaveFile::Names& SaveFile::names(const std::string& what) {
    return m_names.try_emplace(what, m_path + "." + what + kEnd, m_force, m_claims).first->second;
}

std::string SaveFile::namesOf(const Variable& variable, const CVCDWriter& writer) {
    switch (variable.meaning) {
    case Meaning::Function:
        return writeNames("functions", TextSort::Function, 0, ~std::uint64_t{0}, writer);
    case Meaning::Process:
        return writeNames("processes", TextSort::Process, 0, ~std::uint64_t{0}, writer);
    case Meaning::State:
        return writeNames(fmt::format("states_{}", variable.stateMachine), TextSort::State,
                          CTraceNames::pair(variable.stateMachine, 0), CTraceNames::pair(variable.stateMachine, ~0U),
                          writer);
    default:
        return {};
    }
}

std::string SaveFile::writeNames(const std::string& what, TextSort sort, std::uint64_t first, std::uint64_t last,
                                 const CVCDWriter& writer) {
    Names& file = names(what);
    std::string path = std::filesystem::absolute(file.target.name()).generic_string();
    if (std::exchange(file.isUsed, true))
        return path;
    std::ostream& out = file.target.open();
    const auto& all = writer.names().all();
    for (auto name = all.lower_bound({sort, first}); name != all.end() && name->first.first == sort; ++name) {
        if (name->first.second <= last)
            qvx::print(out, "{:08X} {}\n", name->first.second & 0xFFFFFFFF, forViewer(name->second.text));
    }
    file.target.finish();
    return path;
}

void SaveFile::write(const std::string& dump, const CVCDWriter& writer) {
    std::ostream& out = m_save.stream();
    // GTKWave counts by the power of two of a frame of 200 pixels: the whole time in about a thousand of them.
    const double zoom = -std::log2(std::max(1.0, static_cast<double>(writer.duration()) / 5));
    qvx::print(out, "[dumpfile] \"{}\"\n[savefile] \"{}\"\n[timestart] 0\n[size] 1400 800\n[pos] -1 -1\n*{:.6f} -1",
               std::filesystem::absolute(dump).generic_string(), std::filesystem::absolute(m_path).generic_string(),
               zoom);
    for (char marker = 'a'; marker <= 'z'; ++marker)
        out << " -1";
    out << "\n[sst_expanded] 0\n[signals_width] 240\n";
    std::string group;
    for (const Variable& variable : writer.variables()) {
        const std::string scope = variable.path.substr(0, variable.path.rfind('.'));
        if (scope != group) {
            group = scope;
            qvx::print(out, "@200\n-{}\n", scope.substr(scope.find('.') + 1));
        }
        const std::string names = namesOf(variable, writer);
        const unsigned look = lookOf(variable, !names.empty());
        qvx::print(out, "@{:x}\n", look);
        if (!names.empty())
            qvx::print(out, "^1 {}\n", names);
        if (!variable.unit.empty()) { // a name of its own, which tells the unit
            const std::string name = variable.path.substr(variable.path.rfind('.') + 1);
            qvx::print(out, "+{{{} [{}]}} ", name.substr(0, name.find('[')), forAlias(variable.unit));
        }
        out << variable.path << '\n';
        if (look & Steps)
            qvx::print(out, "@{:x}\n-\n-\n", unsigned{Room});
    }
    m_save.finish();
}

void SaveFile::commit() {
    for (auto& [what, names] : m_names) {
        if (names.isUsed)
            names.target.commit();
    }
    m_save.commit();
}

} // namespace qvx
