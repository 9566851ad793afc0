#include "Arguments.h"
#include "Json.h"
#include "Output.h"
#include "Print.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "Work.h"
#include "quorvex/analysis/TraceError.h"
#include "quorvex/analysis/TraceRepair.h"
#include "quorvex/analysis/TraceSearch.h"
#include "quorvex/platform/System.h"
#include "quorvex/stream/FileKind.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceSinkBuffer.h"
#include "quorvex/stream/TraceSourceBufferFile.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

namespace qvx {

namespace {

using namespace Quorvex;
using platform::OutputFile;

enum class LedgerFormat : std::uint8_t { Text, JSON };

struct RepairVerbOptions {
    std::string file;
    bool plain = false;
    bool paged = false;
    bool scan = false;
    LedgerFormat format = LedgerFormat::Text;
    Output output;
};

/// Writes to a file at positions.
class FileSink : public CTraceSinkBuffer {
public:
    explicit FileSink(OutputFile& file) : m_file(file) {}

    bool write(const char* src, unsigned count, std::uint64_t position, unsigned& written) override {
        written = 0;
        if (m_error == 0 && position != m_position && !m_file.seek(position))
            m_error = m_file.error();
        m_position = position;
        return write(src, count, written);
    }
    bool write(const char* src, unsigned count, unsigned& written) override {
        if (m_error == 0 && count > 0 && !m_file.write(src, count))
            m_error = m_file.error();
        written = m_error == 0 ? count : 0;
        m_position += written;
        return m_error == 0;
    }
    bool eof() override { return false; }
    bool good() override { return m_error == 0; }
    void flush() override {}
    void clear() override {}
    std::uint64_t tellp() override { return m_position; }
    int error() const { return m_error; }

private:
    OutputFile& m_file;
    std::uint64_t m_position = 0;
    int m_error = 0;
};

/// Reads what was written to a file, from its start.
class WrittenBytes : public std::streambuf {
public:
    explicit WrittenBytes(OutputFile& file) : m_file(file), m_isGood(file.seek(0)) {}

protected:
    int_type underflow() override {
        const std::size_t count = m_isGood ? m_file.read(m_bytes.data(), m_bytes.size()) : 0;
        setg(m_bytes.data(), m_bytes.data(), m_bytes.data() + count);
        return count > 0 ? traits_type::to_int_type(m_bytes[0]) : traits_type::eof();
    }

private:
    OutputFile& m_file;
    bool m_isGood;
    std::array<char, 0x10000> m_bytes{};
};

/// How many findings there are, by rule.
using Findings = std::array<std::uint64_t, unsigned(CheckRule::Time) + 1>;

Findings findingsIn(TraceFile& trace) {
    Findings findings{};
    checkTrace(trace, [&findings](const Finding& finding) { ++findings[unsigned(finding.rule)]; });
    return findings;
}

/// Where the repair of a trace goes until it is known to be right: the file that the target is going to be, or one that
/// is then copied to it.
class Draft {
public:
    explicit Draft(Target& target) : m_target(target) {
        target.open();
        if (!target.isFile()) {
            if (!m_own.create(platform::temporaryDirectory()))
                throw Failure("a temporary file", platform::errorText(m_own.error()));
            m_own.unname();
        }
    }
    OutputFile& file() { return m_target.isFile() ? m_target.file() : m_own; }
    void commit() {
        if (!m_target.isFile()) {
            WrittenBytes bytes(m_own);
            if (std::istream(&bytes).peek() != std::istream::traits_type::eof())
                m_target.stream() << static_cast<std::streambuf*>(&bytes);
            if (m_own.error() != 0)
                throw Failure("a temporary file", platform::errorText(m_own.error()));
        }
        m_target.commit();
    }

private:
    Target& m_target;
    OutputFile m_own;
};

class Repairing {
public:
    explicit Repairing(RepairVerbOptions& options) : m_options(options) {
        options.output.check({options.file});
        m_isFile = options.output.target().isFile();
        if (options.scan && (!m_isFile || options.file == "-"))
            throw Misuse("--scan", "reads a file, and writes files: FILE and -o must name some");
        if (m_isFile) { // then standard output is free for the ledger
            m_ledger = std::make_unique<Target>("-", false, options.output.claims());
            m_ledger->open();
        }
    }

    ExitCode run() { return m_options.scan ? runScan() : runOne(); }

private:
    std::string name() const { return m_options.file == "-" ? "standard input" : m_options.file; }

    ExitCode runOne() {
        RepairOptions how = options();
        RepairReport report;
        Target& target = m_options.output.target();
        if (m_options.file == "-") {
            Watched<CTraceSourceBufferStream> source(&Work::now(), std::cin);
            report = repair(source, how, target);
        } else {
            Watched<CTraceSourceBufferFile> source(&Work::now());
            open(source);
            how.isWhole = source.is_joined();
            report = repair(source, how, target);
        }
        finish();
        return report.isLossy ? DoneWithLoss : Done;
    }

    /// Each trace goes to a file of its own: those behind the first get a number.
    ExitCode runScan() {
        bool isLossy = false;
        unsigned found = 0;
        std::ifstream bytes = openRaw(), again = openRaw();
        Watched<CTraceSourceBufferStream> all(&Work::now(), bytes);
        CTraceSourceBufferStream source(again);
        findTraces(all, name(), [&](const FoundTrace& trace) {
            std::unique_ptr<Target> further;
            if (++found > 1)
                further =
                    std::make_unique<Target>(numbered(found), m_options.output.force(), m_options.output.claims());
            Target& target = further ? *further : m_options.output.target();
            say({trace.offset, trace.size, Invalid, CheckRule::Damage, false, "a trace, written to " + target.name()},
                "trace");
            RepairOptions how = options();
            how.from = trace.offset;
            how.to = trace.offset + trace.size;
            isLossy = repair(source, how, target).isLossy || isLossy;
        });
        if (found == 0)
            throw Failure(name(), "no trace was found in it");
        finish();
        return isLossy ? DoneWithLoss : Done;
    }

    RepairOptions options() const {
        RepairOptions how;
        how.layout = m_options.paged   ? RepairOptions::Layout::Paged
                     : m_options.plain ? RepairOptions::Layout::Plain
                                       : RepairOptions::Layout::Kept;
        how.name = name();
        return how;
    }

    void open(CTraceSourceBufferFile& source) const {
        const platform::FileStatus status = platform::FileStatus::of(m_options.file);
        if (status.sort == platform::FileStatus::Directory)
            throw Failure(name(), platform::errorText(EISDIR));
        if (!source.open(m_options.file))
            throw Failure(name(), platform::errorText(source.error()));
        if (status.sort != platform::FileStatus::Regular)
            return;
        std::string head(kPageSize, '\0');
        std::ifstream file = openRaw();
        file.read(head.data(), static_cast<std::streamsize>(head.size()));
        head.resize(static_cast<std::size_t>(file.gcount()));
        const FileKind kind = kindOfFile(head);
        if (kind == FileKind::PageFile)
            throw Failure(name(), "is the page file of a trace; repair the trace, which it is read with");
        if (kind == FileKind::Table)
            throw Failure(name(), "is a table and no trace; qvx convert makes one of it");
    }

    bool looksLikeTrace() const {
        try {
            return m_options.file == "-" || !TraceInput(m_options.file).name().empty();
        } catch (const TraceError&) {
            return false;
        }
    }

    std::ifstream openRaw() const {
        std::ifstream file(m_options.file, std::ios::binary);
        if (!file.is_open() || platform::FileStatus::of(m_options.file).sort == platform::FileStatus::Directory)
            throw Failure(name(),
                          platform::errorText(file.is_open() ? EISDIR : platform::openError(m_options.file.c_str())));
        return file;
    }

    /// The name of the file for a further trace: "out-2.qvx" beside "out.qvx".
    std::string numbered(unsigned number) const {
        std::filesystem::path path(m_options.output.target().name());
        const std::string extension = path.extension().string();
        path.replace_filename(path.stem().string() + "-" + std::to_string(number) + extension);
        return path.string();
    }

    RepairReport repair(CTraceSourceBuffer& source, const RepairOptions& how, Target& target) {
        Draft draft(target);
        FileSink sink(draft.file());
        RepairReport report =
            repairTrace(source, sink, how, [this](const RepairNote& note) { say(note, nameOf(note.rule)); });
        if (sink.error() != 0)
            throw Failure(target.name(), platform::errorText(sink.error()));
        if (!report.isWritten)
            throw Failure(name(), "a packet does not fit a block, and cannot be written");
        if (report.size == 0)
            throw Failure(name(), "is empty; a program that records it has not written yet, or was killed before");
        if (report.packets == 0)
            throw Failure(name(), "no packet of a trace can be read");
        if (2 * report.lost > report.size && !m_options.scan && !looksLikeTrace())
            throw Failure(name(), "does not look like a trace; --scan looks for traces within other bytes");
        const std::string left = checkAgain(draft.file(), report, how);
        if (m_ledger)
            m_ledger->finish();
        draft.commit();
        tell(fmt::format(
            "{}: {} packet{} written, {} byte{} lost in {} place{}, {} relative packet{} of unknown context", name(),
            report.packets, plural(report.packets), report.lost, plural(report.lost), report.places,
            plural(report.places), report.uncertain, plural(report.uncertain)));
        if (!left.empty()) {
            tell(fmt::format("{}: {}", target.name(), left));
            report.isLossy = true;
        }
        return report;
    }

    /// What is written must be a trace without a fault of form that the input did not have. What check finds in it, in
    /// words; empty if nothing.
    std::string checkAgain(OutputFile& written, const RepairReport& report, const RepairOptions& how) const {
        if (report.writtenBytes == 0)
            return {};
        WrittenBytes bytes(written);
        std::istream stream(&bytes);
        TraceFile trace("what was repaired", &stream);
        Findings found = findingsIn(trace);
        Findings known{};
        if (found != known && !m_options.scan && m_options.file != "-") {
            try {
                TraceInput input(m_options.file);
                known = findingsIn(input);
            } catch (const TraceError&) { // it cannot be read as it is
            }
        }
        // What is used or entered may have been defined or left where something is lost; and what can be read once only
        // may have had the rest before.
        const bool isAsBefore = report.isLossy || m_options.file == "-";
        const CheckRule last = isAsBefore ? CheckRule::Reference : CheckRule::Time;
        const bool hasPages =
            how.layout == RepairOptions::Layout::Kept ? report.isPaged : how.layout == RepairOptions::Layout::Paged;
        if (!hasPages) // a short plain trace may look like pages, by a packet that begins where one would
            found[unsigned(CheckRule::Page)] = found[unsigned(CheckRule::Restated)] = 0;
        for (unsigned rule = 0; rule <= unsigned(last); ++rule) {
            if (found[rule] > known[rule])
                throw Failure(how.name,
                              fmt::format("what was made of it has findings that it has not, of {}; nothing is "
                                          "written",
                                          nameOf(CheckRule(rule))));
        }
        std::uint64_t all = 0;
        std::string list;
        for (unsigned rule = 0; rule < found.size(); ++rule) {
            all += found[rule];
            if (found[rule] > 0)
                list += fmt::format("{}{} {}", list.empty() ? "" : ", ", found[rule], nameOf(CheckRule(rule)));
        }
        return all == 0 ? "" : fmt::format("{} finding{} left, which qvx check tells: {}", all, plural(all), list);
    }

    void say(const RepairNote& note, std::string_view rule) {
        const std::uint64_t page = pages::numberAt(note.offset);
        const std::string kind = note.kind == Invalid ? "" : CTCodeInfo::TCodeToName(note.kind);
        std::string line;
        if (m_options.format == LedgerFormat::JSON) {
            JsonLine json;
            json.add("file", name()).add("offset", note.offset).add("length", note.length).add("page", page);
            kind.empty() ? json.addUnknown("kind") : json.add("kind", kind);
            json.add("rule", rule).addTruth("loss", note.isLoss).add("text", note.text);
            line = json.text();
        } else {
            line = fmt::format("{}: offset {}, length {}, page {}: {}{}{} [{}]\n", shown(name()), note.offset,
                               note.length, page, kind, kind.empty() ? "" : " ", shown(note.text), rule);
        }
        if (m_ledger) {
            m_ledger->stream() << line;
        } else {
            Work::now().makeRoom();
            std::fputs(line.c_str(), stderr);
        }
    }

    void finish() {
        if (m_ledger)
            m_ledger->commit();
    }

    RepairVerbOptions& m_options;
    bool m_isFile = false;
    std::unique_ptr<Target> m_ledger; ///< null: standard error
};

} // namespace

void addRepair(Program& program) {
    auto options = std::make_shared<RepairVerbOptions>();
    Verb verb = program.add("repair", "Make a whole trace of a damaged or unfinished one");
    verb.option("FILE", options->file, "The trace, read with its page file; - for standard input").required();
    const Option paged = verb.flag("--paged", options->paged, "Write pages (default if the trace has them)");
    verb.flag("--plain", options->plain, "Write packets back to back").excludes(paged);
    verb.flag("--scan", options->scan,
              "Look for traces anywhere in FILE, such as an image; further ones go to OUT-2 ...");
    verb.choice("--format", options->format, {{"text", LedgerFormat::Text}, {"json", LedgerFormat::JSON}},
                "How each place is told: text (default), json: an object a line");
    options->output.addOptions(verb, true);
    verb.footer("Example: qvx repair crashed.qvx -o whole.qvx\n"
                "Each place that was repaired is told in a line, on standard output if -o names a file, else on\n"
                "standard error. What is written is checked before it gets its name. Exit code 3 tells that\n"
                "something is lost or not certain, or that qvx check still finds something.");
    verb.runs([options] { return Repairing(*options).run(); });
}

} // namespace qvx
