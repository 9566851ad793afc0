#include "Arguments.h"
#include "Output.h"
#include "TraceInput.h"
#include "TraceOutput.h"
#include "Verbs.h"
#include "import/ImportedTrace.h"
#include "import/Importers.h"
#include "quorvex/platform/OutputFile.h"
#include "quorvex/platform/System.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iostream>
#include <memory>
#include <streambuf>
#include <utility>

namespace qvx {

namespace {

using namespace Quorvex;

struct ImportOptions {
    std::string file;
    const Importer* format = nullptr;
    TraceShape shape;
    Output output;
};

/// A stream whose beginning can be looked at before it is read.
class Head : public std::streambuf {
public:
    explicit Head(std::istream& rest) : m_rest(rest) { underflow(); }
    std::string_view text() const { return {m_bytes, m_size}; }

protected:
    int_type underflow() override {
        m_rest.read(m_bytes, sizeof m_bytes);
        m_size = static_cast<std::size_t>(m_rest.gcount());
        setg(m_bytes, m_bytes, m_bytes + m_size);
        return m_size == 0 ? traits_type::eof() : traits_type::to_int_type(m_bytes[0]);
    }

private:
    std::istream& m_rest;
    char m_bytes[0x10000];
    std::size_t m_size = 0;
};

/// Reads a directory; the format that it is of.
const Importer& readDirectory(const ImportOptions& options, ImportedTrace& trace) {
    const Importer& format =
        options.format ? *options.format : *std::ranges::find_if(importers(), &Importer::readDirectory);
    if (!format.readDirectory)
        throw Failure(options.file, platform::errorText(EISDIR));
    format.readDirectory(options.file, trace);
    return format;
}

/// Reads a file, or standard input; the format that it is of.
const Importer& readFile(const ImportOptions& options, ImportedTrace& trace) {
    const bool isStandardInput = options.file == "-";
    const std::string name = isStandardInput ? "standard input" : options.file;
    std::ifstream file;
    std::istream* source = &std::cin;
    if (!isStandardInput) {
        file.open(options.file, std::ios::binary);
        if (!file.is_open())
            throw Failure(name, platform::errorText(platform::openError(options.file.c_str())));
        source = &file;
    }
    Head head(*source);
    std::istream in(&head);
    const Importer* format = options.format;
    if (!format)
        format = &*std::ranges::find_if(importers(), [&](const Importer& its) { return its.takes(head.text()); });
    if (!format->read)
        throw Failure(name, fmt::format("is no directory, as traces in the format {} are", format->name));
    format->read(in, name, trace);
    if (source->bad())
        throw Failure(name, platform::errorText(EIO));
    return *format;
}

ExitCode import(ImportOptions& options) {
    options.output.check({options.file});
    const bool isDirectory = platform::FileStatus::of(options.file).sort == platform::FileStatus::Directory;
    ImportedTrace trace;
    const Importer& format = isDirectory ? readDirectory(options, trace) : readFile(options, trace);
    const std::uint64_t packets = trace.write(options.output.target(), !options.shape.plain, options.shape.relative);
    std::string list;
    for (const auto& [what, count] : trace.losses())
        list += fmt::format("{}{} ({})", list.empty() ? "" : ", ", what, count);
    const std::string name = options.file == "-" ? "standard input" : options.file;
    tell(fmt::format("{}: {} packets of {}", name, packets, format.description));
    if (list.empty())
        return Done;
    tell(fmt::format("{}: not kept: {}", name, list));
    return DoneWithLoss;
}

} // namespace

void addImport(Program& program) {
    auto options = std::make_shared<ImportOptions>();
    Verb verb = program.add("import", "Make a trace of what another tool has recorded");
    verb.option("FILE", options->file, "What the other tool has written, a file or a directory; - for standard input")
        .required();
    std::vector<std::pair<std::string, const Importer*>> formats;
    std::string list;
    for (const Importer& format : importers()) {
        formats.emplace_back(format.name, &format);
        list += fmt::format("{}{} ({})", list.empty() ? "" : ", ", format.name, format.description);
    }
    verb.choice("--format", options->format, formats, (list + "; by default what it looks like").c_str());
    options->shape.addTo(verb);
    options->output.addOptions(verb, true);
    verb.footer("Example: perf script --ns | qvx import - -o run.qvx\n"
                "What traces cannot hold is counted, told, and gives exit code 3.");
    verb.runs([options] { return import(*options); });
}

} // namespace qvx
