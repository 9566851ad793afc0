#include "Arguments.h"

#include "quorvex/platform/System.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string>

namespace qvx {

Option& Option::required() {
    m_option->required();
    return *this;
}

Option& Option::excludes(const Option& other) {
    m_option->excludes(other.m_option);
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

/// What is wrong with a text for a number, of which the parser itself takes the lowest bits.
std::string wrongNumber(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const bool isSigned = text.empty() || text[0] < '0' || text[0] > '9';
    if (std::strtoull(text.c_str(), &end, 0); !isSigned && *end == '\0' && errno == 0)
        return {};
    return "'" + text + "' is no whole number from 0 to " + std::to_string(std::numeric_limits<std::uint64_t>::max());
}

} // namespace

Option Verb::option(const char* name, std::string& value, const char* help, const char* type) {
    return add(m_verb, name, value, help, type);
}

Option Verb::option(const char* name, std::vector<std::string>& values, const char* help, const char* type) {
    Option option = add(m_verb, name, values, help, type);
    if (name[0] == '-')
        option.m_option->allow_extra_args(false); // what follows the value is something else
    return option;
}

Option Verb::option(const char* name, std::uint64_t& value, const char* help, const char* type) {
    Option option = add(m_verb, name, value, help, type);
    option.m_option->check(wrongNumber, "");
    return option;
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
    for (const auto& [word, number] : words)
        m_program.m_words[option].push_back(word);
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

namespace {

std::vector<const CLI::App*> verbsOf(const CLI::App& program) {
    return program.get_subcommands([](const CLI::App*) { return true; });
}

/// What is told of the first option that a verb, or the program, does not have; empty if it has all.
std::string unknownOption(const CLI::App& program) {
    const std::vector<std::string> own = program.remaining();
    std::string user = program.get_name();
    if (own.empty())
        for (const CLI::App* verb : program.get_subcommands())
            user += " " + verb->get_name();
    for (const std::string& word : program.remaining(true)) {
        if (word == "--")
            break;
        if (word.size() > 1 && word[0] == '-')
            return word.substr(0, word.find('=')) + ": " + user + " has no such option";
    }
    return {};
}

/// Plain text in the language of manual pages.
std::string roff(const std::string& text) {
    std::string result = text.starts_with('.') || text.starts_with('\'') ? "\\&" : "";
    for (const char c : text)
        result += c == '-' ? "\\-" : c == '\\' ? "\\e" : std::string(1, c);
    return result;
}

} // namespace

std::string Program::manual() const {
    std::string page;
    for (const CLI::App* verb : verbsOf(*m_program)) {
        page += ".SS qvx " + verb->get_name() + "\n" + roff(verb->get_description()) + ".\n";
        for (const CLI::Option* option : verb->get_options()) {
            std::string names;
            for (const std::string& name : option->get_snames())
                names += (names.empty() ? "" : ", ") + ("\\fB" + roff("-" + name) + "\\fR");
            for (const std::string& name : option->get_lnames())
                names += (names.empty() ? "" : ", ") + ("\\fB" + roff("--" + name) + "\\fR");
            if (names.empty())
                names = "\\fI" + roff(option->get_name(true)) + "\\fR";
            else if (option->get_items_expected_max() > 0)
                names += " \\fI" + roff(option->get_type_name()) + "\\fR";
            page += ".TP\n" + names + "\n" + roff(option->get_description()) + ".\n";
        }
    }
    return page;
}

std::string Program::completion() const {
    std::string verbs, options, words;
    for (const CLI::App* verb : verbsOf(*m_program)) {
        verbs += verb->get_name() + " ";
        std::string names;
        for (const CLI::Option* option : verb->get_options()) {
            for (const std::string& name : option->get_snames())
                names += "-" + name + " ";
            for (const std::string& name : option->get_lnames())
                names += "--" + name + " ";
            if (const auto choice = m_words.find(option); choice != m_words.end())
                words += "    '" + verb->get_name() + " --" + option->get_lnames().front() + "') words='" +
                         CLI::detail::join(choice->second, " ") + "' ;;\n";
        }
        options += "    " + verb->get_name() + ") options='" + names + "' ;;\n";
    }
    return "# bash completion for qvx\n"
           "_qvx() {\n"
           "    local current=${COMP_WORDS[COMP_CWORD]} options='--help' words=\n"
           "    case ${COMP_WORDS[1]} in\n" +
           options +
           "    esac\n"
           "    case \"${COMP_WORDS[1]} ${COMP_WORDS[COMP_CWORD - 1]}\" in\n" +
           words +
           "    esac\n"
           "    if [[ $COMP_CWORD -eq 1 ]]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W '" +
           verbs +
           "help --help --version' -- \"$current\"; compgen -f -- \"$current\")\n"
           "    elif [[ $words ]]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
           "    elif [[ $current == -* ]]; then\n"
           "        mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$current\")\n"
           "    else\n"
           "        mapfile -t COMPREPLY < <(compgen -f -- \"$current\")\n"
           "    fi\n"
           "}\n"
           "complete -o filenames -o default -F _qvx qvx\n";
}

Program::Program(const char* description, const char* version, const char* footer)
    : m_program(std::make_unique<CLI::App>(description, "qvx")) {
    m_program->set_version_flag("--version", version);
    m_program->require_subcommand(1);
    m_program->allow_windows_style_options(false); // /FILE is a file on every system
    m_program->get_formatter()->column_width(28);
    m_program->footer(footer);
    // For the build, which makes the manual page and the completion of them; the help does not tell of these.
    const auto answer = [this](std::string (Program::*tell)() const) {
        return [this, tell] {
            m_answer = (this->*tell)();
            throw CLI::Success();
        };
    };
    m_program->add_flag_callback("--options-of-manual", answer(&Program::manual))->group("");
    m_program->add_flag_callback("--completion", answer(&Program::completion))->group("");
}

Program::~Program() = default;

Verb Program::add(const char* verb, const char* description) {
    return Verb(*this, *m_program->add_subcommand(verb, description));
}

int Program::run(std::vector<std::string> arguments, const char* otherwise) {
    const auto isVerb = [this](const std::string& word) {
        return !m_program->get_subcommands([&word](const CLI::App* verb) { return verb->check_name(word); }).empty();
    };
    if (arguments.empty())
        arguments = {"help"};
    const std::string first = arguments.front();
    if (first == "help" && (arguments.size() == 1 || isVerb(arguments[1]))) {
        arguments.erase(arguments.begin());
        arguments.push_back("--help");
    } else if ((first == "-" || !first.starts_with('-')) && !isVerb(first)) {
        arguments.insert(arguments.begin(), otherwise);
    }
    // The parser takes the arguments last first.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        m_program->parse(reversed);
        return m_exitCode;
    } catch (const CLI::ParseError& error) {
        std::stringstream out, complaint;
        out << m_answer;
        const bool isHelp = error.get_exit_code() == 0;
        // Of an option that there is not, other faults only follow.
        const std::string unknown = unknownOption(*m_program);
        if (isHelp || unknown.empty())
            m_program->exit(error, out, complaint);
        else
            m_program->exit(CLI::ValidationError(unknown), out, complaint);
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
