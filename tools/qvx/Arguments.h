#pragma once

#include "Verbs.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace qvx {

/// Wrong use that the parser cannot see by itself: of options that do not go together. A verb throws it before it does
/// anything.
class Misuse : public std::runtime_error {
public:
    Misuse(std::string option, const std::string& text) : std::runtime_error(text), m_option(std::move(option)) {}
    const std::string& option() const { return m_option; }

private:
    std::string m_option;
};

class Program;

/// An option of a verb, or one of its arguments.
class Option {
public:
    explicit Option(CLI::Option* option) : m_option(option) {}

    Option& required();
    Option& excludes(const Option& other);

private:
    CLI::Option* m_option;

    friend class Verb;
};

/// What follows a verb on the command line. Names with dashes are options, "-o,--output" has a short form; others are
/// arguments. Values are set before the verb runs and must live as long as the program; `type` is what help calls them.
class Verb {
public:
    Verb(Program& program, CLI::App& verb) : m_program(program), m_verb(verb) {}

    Option flag(const char* name, bool& value, const char* help);
    Option option(const char* name, std::string& value, const char* help, const char* type = "FILE");
    Option option(const char* name, std::optional<std::string>& value, const char* help, const char* type = "FILE");
    /// With words that it may take among other values, for those who complete what is typed.
    Option option(const char* name, std::vector<std::string>& values, const char* help, const char* type = "FILE",
                  const std::vector<std::string>& words = {});
    Option option(const char* name, std::uint64_t& value, const char* help, const char* type = "N");
    /// One of some words, each of which stands for a value.
    template <class Value>
    Option choice(const char* name, Value& value, std::vector<std::pair<std::string, Value>> words, const char* help,
                  const char* type = "FORMAT") {
        std::vector<std::pair<std::string, unsigned>> numbers;
        numbers.reserve(words.size());
        for (const auto& row : words)
            numbers.emplace_back(row.first, static_cast<unsigned>(numbers.size()));
        const auto take = [&value, words = std::move(words)](unsigned number) { value = words[number].second; };
        return chooseNumber(name, take, numbers, help, type);
    }
    /// Stands below the help: an example, and what else is to be said.
    void footer(const std::string& text);
    /// What it does; one that reads traces has the options of such work, too.
    void runs(std::function<ExitCode()> action, bool readsTraces = true);

private:
    Option chooseNumber(const char* name, std::function<void(unsigned)> take,
                        const std::vector<std::pair<std::string, unsigned>>& words, const char* help, const char* type);

    Program& m_program;
    CLI::App& m_verb;
};

/// The program as its verbs make it up. This alone knows how a command line is parsed.
class Program {
public:
    Program(const char* description, const char* version, const char* footer);
    ~Program();

    Verb add(const char* verb, const char* description);
    /// Runs a verb, or shows help: that of `help`, `help VERB` and of nothing at all. `otherwise` is the verb of a
    /// command line that begins with a file.
    int run(std::vector<std::string> arguments, const char* otherwise);

private:
    /// The options of all verbs, as a manual page tells them.
    std::string manual() const;
    /// What completes a command line in a shell.
    std::string completionForBash() const;
    std::string completionForZsh() const;
    std::string completionForFish() const;
    /// The words that an option takes; empty where it takes others.
    std::string wordsOf(const CLI::Option& option) const;

    std::unique_ptr<CLI::App> m_program;
    std::map<const CLI::Option*, std::vector<std::string>> m_words; ///< that an option takes
    std::string m_answer;                                           ///< to those who ask for no verb
    ExitCode m_exitCode = Done;

    friend class Verb;
};

} // namespace qvx
