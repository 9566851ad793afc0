#include "Arguments.h"
#include "Inputs.h"
#include "Json.h"
#include "Output.h"
#include "Print.h"
#include "TimeText.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/Merged.h"
#include "quorvex/analysis/TraceError.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/analysis/TraceRules.h"
#include "quorvex/platform/System.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

enum class AssertFormat : std::uint8_t { Text, JSON, JUnit };

struct AssertOptions {
    Inputs inputs;
    std::vector<std::string> rulesFiles;
    std::vector<std::string> rules;
    std::uint64_t limit = 10;
    AssertFormat format = AssertFormat::Text;
    Output output;
};

std::string contentOf(const std::string& file) {
    if (file == "-")
        return {std::istreambuf_iterator<char>(std::cin), {}};
    std::ifstream in(file, std::ios::binary);
    std::string content;
    for (char bytes[0x1000]; in;) {
        in.read(bytes, sizeof bytes);
        content.append(bytes, static_cast<std::size_t>(in.gcount()));
    }
    if (!in.is_open() || in.bad())
        throw Misuse("--rules", file + ": " + platform::errorText(platform::openError(file.c_str())));
    return content;
}

void addRules(TraceRules& rules, const std::string& text, const std::string& source) {
    if (const auto fault = rules.add(text, source))
        throw Misuse(fmt::format("{}:{}", source, fault->line), fault->text);
}

/// A text in a document of XML, also in the value of an attribute.
std::string xmlText(std::string_view text) {
    std::string result;
    for (const char c : shown(text)) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

class Assertion {
public:
    Assertion(AssertOptions& options, std::vector<std::string> files)
        : m_options(options), m_files(std::move(files)), m_rules(options.limit) {}

    void addAllRules() {
        if (m_options.rulesFiles.empty() && m_options.rules.empty()) {
            const std::string last = m_files.back();
            if (isTrace(last))
                throw Misuse("no rules", "give a rules file last, or --rules, or --rule");
            if (m_files.size() < 2)
                throw Misuse("FILES", "the last one holds the rules, and there must be one before; or see --rule");
            m_options.rulesFiles = {last};
            m_files.pop_back();
        }
        for (const std::string& file : m_options.rulesFiles) {
            if (file == "-" && std::ranges::count(m_files, file) + std::ranges::count(m_options.rulesFiles, file) > 1)
                throw Misuse("--rules", "standard input can be read once");
            addRules(m_rules, contentOf(file), file == "-" ? "standard input" : file);
        }
        for (const std::string& rule : m_options.rules) {
            if (rule.find_first_not_of(" \t\r\n") == rule.npos)
                throw Misuse("--rule", "is empty");
        }
        if (!m_options.rules.empty()) // each is a line
            addRules(m_rules, fmt::format("{}", fmt::join(m_options.rules, "\n")), "--rule");
        if (m_rules.size() == 0)
            throw Misuse("--rules", "there are none");
    }
    const std::vector<std::string>& files() const { return m_files; }

    /// Reads all traces; whether something is missing there.
    ExitCode read() {
        // What cannot be read twice is read once: there, names hold from where they stand.
        std::vector<std::unique_ptr<TraceInput>> inputs;
        for (std::uint32_t file = 0; file < m_files.size(); ++file) {
            auto input = std::make_unique<TraceInput>(m_files[file]);
            if (input->pause()) {
                m_rules.learn(*input, file);
                input.reset();
            }
            inputs.push_back(std::move(input));
        }
        const auto open = [&](std::size_t file) {
            return inputs[file] ? std::move(inputs[file]) : std::make_unique<TraceInput>(m_files[file]);
        };
        if (m_rules.needOrder()) {
            Merged merged;
            for (std::size_t file = 0; file < m_files.size(); ++file)
                merged.add(open(file));
            m_rules.read(merged);
            return reportDamage(merged);
        }
        ExitCode exitCode = Done;
        for (std::uint32_t file = 0; file < m_files.size(); ++file) {
            const auto input = open(file);
            m_rules.read(*input, file);
            if (const ExitCode damage = input->reportDamage(); damage != Done)
                exitCode = damage;
        }
        return exitCode;
    }

    /// Whether all rules hold.
    bool print(std::ostream& out) {
        const std::vector<RuleResult> results = m_rules.results();
        std::size_t broken = 0;
        for (const RuleResult& its : results)
            broken += its.broken > 0;
        if (m_options.format == AssertFormat::JUnit)
            qvx::print(out,
                       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n"
                       "<testsuite name=\"qvx assert\" tests=\"{}\" failures=\"{}\" errors=\"0\" skipped=\"0\">\n",
                       results.size(), broken);
        for (const RuleResult& its : results) {
            if (m_options.format == AssertFormat::JUnit)
                printCase(out, its);
            else if (m_options.format == AssertFormat::JSON)
                printJson(out, its);
            else
                printText(out, its);
        }
        if (m_options.format == AssertFormat::JUnit)
            out << "</testsuite>\n</testsuites>\n";
        if (m_options.format == AssertFormat::Text)
            qvx::print(out, "{} rule{}, {} broken\n", results.size(), plural(results.size()), broken);
        return broken == 0;
    }

private:
    static bool isTrace(const std::string& file) {
        if (file == "-")
            return false;
        try {
            const TraceInput trace(file);
            return true;
        } catch (const TraceError&) {
            return false;
        }
    }
    static std::string placeOf(const RuleResult& its) { return fmt::format("{}:{}", its.source, its.line); }
    static std::string verdictOf(const RuleResult& its) {
        if (its.broken == 0)
            return its.checked > 0 ? fmt::format("holds, {} checked", its.checked) : "holds, nothing to check";
        return fmt::format("broken {} time{}, {} checked", its.broken, plural(its.broken), its.checked);
    }

    std::string textOf(const RuleFinding& finding) const {
        std::string where;
        const auto add = [&where](const std::string& what) { where.append(where.empty() ? "" : ", ").append(what); };
        if (finding.offset != kUnknown64)
            add(fmt::format("offset {}", finding.offset));
        if (!isUnknown(FieldMeaning::Context, finding.thread))
            add(m_rules.names().threadText(finding.thread, finding.file));
        if (!isUnknown(FieldMeaning::Context, finding.core))
            add(fmt::format("core {}", finding.core));
        if (finding.tick != kUnknown64)
            add(fmt::format("tick {}", finding.tick));
        if (finding.nanoseconds != kUnknown64)
            add(fmt::format("{} s from the start", secondsText(finding.nanoseconds)));
        const std::string file = finding.file < m_files.size() ? m_files[finding.file] + ": " : "";
        return file + where + (where.empty() ? "" : ": ") + finding.text;
    }
    static std::string leftOf(const RuleResult& its) {
        return its.findings.empty() || its.broken <= its.findings.size()
                   ? ""
                   : "... and more (--limit tells how many are shown)";
    }

    void printText(std::ostream& out, const RuleResult& its) const {
        qvx::print(out, "{}: {}: {}\n", shown(placeOf(its)), shown(its.rule), verdictOf(its));
        for (const RuleFinding& finding : its.findings)
            qvx::print(out, "    {}\n", shown(textOf(finding)));
        if (const std::string left = leftOf(its); !left.empty())
            qvx::print(out, "    {}\n", left);
    }

    void printCase(std::ostream& out, const RuleResult& its) const {
        qvx::print(out, "<testcase classname=\"{}\" name=\"{}\"", xmlText(placeOf(its)), xmlText(its.rule));
        if (its.broken == 0) {
            out << "/>\n";
            return;
        }
        qvx::print(out, "><failure message=\"{}\">\n", verdictOf(its));
        for (const RuleFinding& finding : its.findings)
            qvx::print(out, "{}\n", xmlText(textOf(finding)));
        if (const std::string left = leftOf(its); !left.empty())
            qvx::print(out, "{}\n", left);
        out << "</failure></testcase>\n";
    }

    static void addValue(JsonLine& line, const RuleValue& value) {
        if (const auto* number = std::get_if<std::uint64_t>(&value))
            line.add("value", *number);
        else if (const auto* below = std::get_if<std::int64_t>(&value))
            line.addSigned("value", *below);
        else if (const auto* real = std::get_if<double>(&value))
            line.addReal("value", *real);
        else
            line.addUnknown("value");
    }

    void printJson(std::ostream& out, const RuleResult& its) const {
        JsonLine rule;
        rule.add("rules", its.source).add("line", its.line).add("rule", its.rule);
        out << rule.add("checked", its.checked).add("broken", its.broken).text();
        for (const RuleFinding& finding : its.findings) {
            JsonLine line;
            line.add("rules", its.source).add("line", its.line).add("rule", its.rule);
            const auto add = [&line](const char* name, std::uint64_t value, bool isKnown) {
                isKnown ? line.add(name, value) : line.addUnknown(name);
            };
            finding.file < m_files.size() ? line.add("file", m_files[finding.file]) : line.addUnknown("file");
            add("offset", finding.offset, finding.offset != kUnknown64);
            add("thread", finding.thread, !isUnknown(FieldMeaning::Context, finding.thread));
            add("core", finding.core, !isUnknown(FieldMeaning::Context, finding.core));
            add("tick", finding.tick, finding.tick != kUnknown64);
            add("time_ns", finding.nanoseconds, finding.nanoseconds != kUnknown64);
            if (const std::string& name = m_rules.names().threadName(finding.thread, finding.file); !name.empty())
                line.add("thread_name", name);
            addValue(line, finding.value);
            out << line.add("text", finding.text).text();
        }
    }

    AssertOptions& m_options;
    std::vector<std::string> m_files;
    TraceRules m_rules;
};

ExitCode assertRules(AssertOptions& options) {
    Assertion assertion(options, options.inputs.files());
    assertion.addAllRules();
    std::vector<std::string> read = assertion.files();
    read.insert(read.end(), options.rulesFiles.begin(), options.rulesFiles.end());
    options.output.checkForPeople(read);
    std::ostream& out = options.output.target().open();
    const ExitCode loss = assertion.read();
    const bool allHold = assertion.print(out);
    options.output.target().commit();
    return allHold ? loss : Failed;
}

} // namespace

void addAssert(Program& program) {
    auto options = std::make_shared<AssertOptions>();
    Verb verb = program.add("assert", "Tell whether traces keep rules");
    options->inputs.addTo(verb,
                          "Traces, or directories of *.qvx; without --rules and --rule, the last is a rules file");
    verb.option("--rules", options->rulesFiles,
                "Take the rules from there, - for standard input; all FILES are traces then");
    verb.option("--rule", options->rules, "A rule itself", "TEXT");
    verb.option("--limit", options->limit, "Show the first N times that a rule is broken (10)");
    verb.choice("--format", options->format,
                {{"text", AssertFormat::Text}, {"json", AssertFormat::JSON}, {"junit", AssertFormat::JUnit}},
                "text (default), json: a rule or a finding a line, junit: XML for build servers");
    options->output.addOptionsForPeople(verb);
    verb.footer("Examples: qvx assert traces/*.qvx ci.rules\n"
                "          qvx assert trace.qvx --rule 'function \"parse*\" never longer than 5ms'\n"
                "Rules, one a line, # begins a comment:\n"
                "  function NAME never longer than TIME    (or: shorter)\n"
                "  function NAME called COUNT\n"
                "  depth never above N                     functions in each other, in a thread\n"
                "  event NAME before event NAME [within TIME]   one before each of the others\n"
                "  event NAME after event NAME [within TIME]    one behind each of the others\n"
                "  event NAME COUNT\n"
                "  message NAME COUNT                      by its text\n"
                "  counter NAME between N and N            (or: never above N, never below N)\n"
                "  thread gap never longer than TIME       time between packets; or: core gap\n"
                "  no gap                                  no damage, no overflow of the target\n"
                "  no loss                                 likewise, and no end that is missing\n"
                "A NAME stands in double quotes; * is any characters, ? is one. COUNT is: never, at most N times, at\n"
                "least N times. A TIME is 1.5s, 5ms, 10us, 20ns, or a number of ticks. Where the order of several\n"
                "traces counts, they are read as one, by time. Exit codes: 0 all rules hold, 1 one is broken (or a\n"
                "trace cannot be read), 2 wrong use or wrong rules, 3 all hold in what is left of damaged traces.");
    verb.runs([options] { return assertRules(*options); });
}

} // namespace qvx
