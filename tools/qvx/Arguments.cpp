#include "Arguments.h"

#include "Words.h"
#include "Work.h"
#include "quorvex/platform/OutputFile.h"
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

Option Verb::option(const char* name, std::optional<std::string>& value, const char* help, const char* type) {
    return add(m_verb, name, value, help, type);
}

Option Verb::option(const char* name, std::vector<std::string>& values, const char* help, const char* type,
                    const std::vector<std::string>& words) {
    Option option = add(m_verb, name, values, help, type);
    if (!words.empty())
        m_program.m_words[option.m_option] = words;
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
        std::vector<std::string> all;
        for (const auto& [known, number] : words) {
            if (word == known) {
                word = std::to_string(number);
                return std::string();
            }
            all.push_back(known);
        }
        return "'" + word + "' is none of " + CLI::detail::join(all, ", ") + didYouMean(word, all);
    };
    CLI::Option* option = m_verb.add_option_function<unsigned>(
        name, [take = std::move(take)](const unsigned& number) { take(number); }, help);
    option->type_name(type)->transform(CLI::Validator(numberOf, ""));
    for (const auto& [word, number] : words)
        m_program.m_words[option].push_back(word);
    return Option(option);
}

void Verb::footer(const std::string& text) {
    m_verb.footer(text);
}

void Verb::runs(std::function<ExitCode()> action, bool readsTraces) {
    if (readsTraces)
        Work::now().addTo(*this);
    m_verb.callback([&program = m_program, action = std::move(action)] {
        try {
            program.m_exitCode = action();
            Work::now().makeRoom();
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
    const CLI::App* user = &program;
    std::string name = program.get_name();
    if (program.remaining().empty()) {
        for (const CLI::App* verb : program.get_subcommands()) {
            user = verb;
            name += " " + verb->get_name();
        }
    }
    for (const std::string& word : program.remaining(true)) {
        if (word == "--")
            break;
        if (word.size() < 2 || word[0] != '-')
            continue;
        std::vector<std::string> known;
        for (const CLI::Option* option : user->get_options()) {
            for (const std::string& its : option->get_lnames())
                known.push_back("--" + its);
        }
        const std::string option = word.substr(0, word.find('='));
        return option + ": " + name + " has no such option" + didYouMean(option, known);
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
        page += ".PP\n.nf\n";
        std::istringstream footer(verb->get_footer());
        for (std::string line; std::getline(footer, line);)
            page += roff(line) + "\n";
        page += ".fi\n";
    }
    return page;
}

namespace {

/// A text within single quotes of a shell.
std::string inQuotes(const std::string& text) {
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? "'\\''" : std::string(1, c);
    return result + "'";
}

/// The same within brackets between the quotes, and with colons, that mean themselves to zsh's functions.
std::string quotedForZsh(const std::string& text) {
    std::string result;
    for (const char c : text) {
        const bool isSpecial = c == '[' || c == ']' || c == ':' || c == '\\';
        result += (isSpecial ? "\\" : "") + (c == '\'' ? std::string("'\\''") : std::string(1, c));
    }
    return result;
}

/// The names of an option as they are typed.
std::vector<std::string> namesOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames())
        names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        names.push_back("--" + name);
    return names;
}

bool takesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

} // namespace

std::string Program::wordsOf(const CLI::Option& option) const {
    const auto choice = m_words.find(&option);
    return choice == m_words.end() ? "" : CLI::detail::join(choice->second, " ");
}

std::string Program::completionForBash() const {
    std::string verbs, options, words;
    for (const CLI::App* verb : verbsOf(*m_program)) {
        verbs += verb->get_name() + " ";
        std::string names;
        for (const CLI::Option* option : verb->get_options()) {
            for (const std::string& name : namesOf(*option))
                names += name + " ";
            if (const std::string values = wordsOf(*option); !values.empty())
                words += "    '" + verb->get_name() + " " + namesOf(*option).back() + "') words='" + values + "' ;;\n";
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

std::string Program::completionForZsh() const {
    std::string verbs, cases;
    for (const CLI::App* verb : verbsOf(*m_program)) {
        verbs += "        '" + verb->get_name() + ":" + quotedForZsh(verb->get_description()) + "'\n";
        cases += "    " + verb->get_name() + ")\n        _arguments -s \\\n";
        for (const CLI::Option* option : verb->get_options()) {
            const std::string words = wordsOf(*option);
            const std::string value = !takesValue(*option) ? ""
                                      : words.empty()      ? ":" + option->get_type_name() + ":_files"
                                                           : ":" + option->get_type_name() + ":(" + words + ")";
            for (const std::string& name : namesOf(*option))
                cases +=
                    "            '*" + name + "[" + quotedForZsh(option->get_description()) + "]" + value + "' \\\n";
        }
        cases += "            '*:file:_files' ;;\n";
    }
    return "#compdef qvx\n"
           "_qvx() {\n"
           "    local -a verbs=(\n" +
           verbs +
           "    )\n"
           "    if (( CURRENT == 2 )); then\n"
           "        _describe verb verbs\n"
           "        _files\n"
           "        return\n"
           "    fi\n"
           "    shift words\n"
           "    (( CURRENT -= 1 ))\n"
           "    case $words[1] in\n" +
           cases +
           "    *) _files ;;\n"
           "    esac\n"
           "}\n"
           "_qvx \"$@\"\n";
}

std::string Program::completionForFish() const {
    std::string lines = "# fish completion for qvx\n";
    for (const CLI::App* verb : verbsOf(*m_program)) {
        lines += "complete -c qvx -n __fish_use_subcommand -a " + verb->get_name() + " -d " +
                 inQuotes(verb->get_description()) + "\n";
        for (const CLI::Option* option : verb->get_options()) {
            std::string names;
            for (const std::string& name : option->get_snames())
                names += " -s " + name;
            for (const std::string& name : option->get_lnames())
                names += " -l " + name;
            if (names.empty())
                continue;
            const std::string words = wordsOf(*option);
            lines += "complete -c qvx -n '__fish_seen_subcommand_from " + verb->get_name() + "'" + names +
                     (takesValue(*option) ? words.empty() ? " -r" : " -x -a " + inQuotes(words) : "") + " -d " +
                     inQuotes(option->get_description()) + "\n";
        }
    }
    return lines;
}

Program::Program(const char* description, const char* version, const char* footer)
    : m_program(std::make_unique<CLI::App>(description, "qvx")) {
    m_program->set_version_flag("-V,--version", version);
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
    m_program->add_flag_callback("--completion-bash", answer(&Program::completionForBash))->group("");
    m_program->add_flag_callback("--completion-zsh", answer(&Program::completionForZsh))->group("");
    m_program->add_flag_callback("--completion-fish", answer(&Program::completionForFish))->group("");
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
    std::vector<std::string> verbs{"help"};
    for (const CLI::App* verb : verbsOf(*m_program))
        verbs.push_back(verb->get_name());
    if (first == "help") {
        if (arguments.size() > 1 && !isVerb(arguments[1])) {
            tell("'" + arguments[1] + "' is no verb" + didYouMean(arguments[1], verbs));
            return WrongUse;
        }
        arguments.erase(arguments.begin());
        arguments.push_back("--help");
    } else if ((first == "-" || !first.starts_with('-')) && !isVerb(first)) {
        const std::string meant = didYouMean(first, verbs);
        if (first != "-" && !meant.empty() &&
            Quorvex::platform::FileStatus::of(first).sort == Quorvex::platform::FileStatus::Missing) {
            tell("'" + first + "' is neither a verb nor a file" + meant);
            return WrongUse;
        }
        arguments.insert(arguments.begin(), otherwise);
    }
    Work::now().begin();
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
        Work::now().makeRoom();
        for (std::string line; std::getline(complaint, line);)
            std::fputs((shown(line) + "\n").c_str(), stderr);
        errno = 0;
        if (std::fputs(out.str().c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
            tell("standard output: " + Quorvex::platform::errorText(errno));
            return Failed;
        }
        return isHelp ? Done : WrongUse;
    } catch (const NobodyReads&) {
        Work::now().makeRoom();
        return Failed;
    } catch (const std::exception& error) {
        tell(error.what());
        return Failed;
    }
}

} // namespace qvx
