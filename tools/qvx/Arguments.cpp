#include "Arguments.h"

#include "quorvex/platform/System.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <sstream>

namespace qvx {

Option& Option::required() {
    m_option->required();
    return *this;
}

Option& Option::excludes(const Option& other) {
    m_option->excludes(other.m_option);
    return *this;
}

Option& Option::needs(const Option& other) {
    m_option->needs(other.m_option);
    return *this;
}

Option Verb::flag(const char* name, bool& value, const char* help) {
    return Option(m_verb.add_flag(name, value, help));
}

namespace {

/// Arguments are called by their names, options by what their values are.
template <class Value> Option add(CLI::App& verb, const char* name, Value& value, const char* help, const char* type) {
    CLI::Option* option = verb.add_option(name, value, help);
    if (name[0] == '-')
        option->type_name(type);
    return Option(option);
}

} // namespace

Option Verb::option(const char* name, std::string& value, const char* help, const char* type) {
    return add(m_verb, name, value, help, type);
}

Option Verb::option(const char* name, std::vector<std::string>& values, const char* help, const char* type) {
    return add(m_verb, name, values, help, type);
}

Option Verb::option(const char* name, std::uint64_t& value, const char* help, const char* type) {
    return add(m_verb, name, value, help, type);
}

Option Verb::chooseNumber(const char* name, std::function<void(unsigned)> take,
                          const std::vector<std::pair<std::string, unsigned>>& words, const char* help,
                          const char* type) {
    const auto numberOf = [words](std::string& word) {
        std::string all;
        for (const auto& [known, number] : words) {
            if (word == known) {
                word = std::to_string(number);
                return std::string();
            }
            all += (all.empty() ? "" : ", ") + known;
        }
        return "'" + word + "' is none of " + all;
    };
    CLI::Option* option = m_verb.add_option_function<unsigned>(
        name, [take = std::move(take)](const unsigned& number) { take(number); }, help);
    option->type_name(type)->transform(CLI::Validator(numberOf, ""));
    return Option(option);
}

void Verb::footer(const char* text) {
    m_verb.footer(text);
}

void Verb::runs(std::function<ExitCode()> action) {
    m_verb.callback([&program = m_program, action = std::move(action)] {
        try {
            program.m_exitCode = action();
        } catch (const Misuse& misuse) {
            throw CLI::ValidationError(misuse.option(), misuse.what());
        }
    });
}

Program::Program(const char* description, const char* version, const char* footer)
    : m_program(std::make_unique<CLI::App>(description, "qvx")) {
    m_program->set_version_flag("--version", version);
    m_program->require_subcommand(1);
    m_program->allow_windows_style_options(false); // /FILE is a file on every system
    m_program->get_formatter()->column_width(28);
    m_program->footer(footer);
}

Program::~Program() = default;

Verb Program::add(const char* verb, const char* description) {
    return Verb(*this, *m_program->add_subcommand(verb, description));
}

int Program::run(std::vector<std::string> arguments, const char* otherwise) {
    if (!arguments.empty()) {
        const std::string& first = arguments.front();
        const bool isFile = first == "-" || first.front() != '-';
        const auto isVerb = [&first](const CLI::App* verb) { return verb->check_name(first); };
        if (isFile && m_program->get_subcommands(isVerb).empty())
            arguments.insert(arguments.begin(), otherwise);
    }
    // The parser takes the arguments last first.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        m_program->parse(reversed);
        return m_exitCode;
    } catch (const CLI::ParseError& error) {
        std::stringstream out, complaint;
        const bool isHelp = m_program->exit(error, out, complaint) == 0;
        for (std::string line; std::getline(complaint, line);)
            std::fputs((shown(line) + "\n").c_str(), stderr);
        errno = 0;
        if (std::fputs(out.str().c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
            tell("standard output: " + Quorvex::platform::errorText(errno));
            return Failed;
        }
        return isHelp ? Done : WrongUse;
    } catch (const NobodyReads&) {
        return Failed;
    } catch (const std::exception& error) {
        tell(error.what());
        return Failed;
    }
}

} // namespace qvx
