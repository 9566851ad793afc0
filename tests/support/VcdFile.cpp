#include "tests/support/VcdFile.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace Quorvex::test {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("no value change dump: " + what);
}

/// Digits as many as the variable has bits, as readers fill them up.
std::string widened(std::string digits, unsigned width) {
    for (char& digit : digits)
        digit = digit == 'X' ? 'x' : digit == 'Z' ? 'z' : digit;
    if (digits.empty() || digits.size() > width || digits.find_first_not_of("01xz") != std::string::npos)
        fail("value " + digits + " of " + std::to_string(width) + " bits");
    const char filler = digits[0] == '1' ? '0' : digits[0];
    return std::string(width - digits.size(), filler) + digits;
}

/// A number with the digits that all programs keep.
std::string real(const std::string& value) {
    char text[32];
    return {text,
            static_cast<std::size_t>(std::snprintf(text, sizeof text, "r%.12g", std::strtod(value.c_str(), nullptr)))};
}

} // namespace

VcdFile::VcdFile(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> scopes{""}; // with all that are around them
    std::multimap<std::string, Variable*> codes;
    std::string word;
    const auto next = [&in, &word] {
        if (!(in >> word))
            fail("ends in the middle");
        return word;
    };
    const auto section = [&] {
        std::string content;
        while (next() != "$end")
            content += word;
        return content;
    };
    for (const char c : text) {
        if (c != '\n' && c != '\t' && (c < 0x20 || c > 0x7E))
            fail("a byte that is no ASCII");
    }
    while (next() != "$enddefinitions") {
        if (word == "$version" || word == "$comment" || word == "$date") {
            section();
        } else if (word == "$timescale") {
            timescale = section();
        } else if (word == "$scope") {
            next();
            scopes.push_back(scopes.back() + next() + ".");
            section();
        } else if (word == "$upscope") {
            section();
            if (scopes.size() == 1)
                fail("$upscope without $scope");
            scopes.pop_back();
        } else if (word == "$var") {
            Variable variable{next(), 0, {}};
            variable.width = static_cast<unsigned>(std::stoul(next()));
            const std::string code = next();
            const std::string path = scopes.back() + next();
            const std::string range = section();
            if (!range.empty() && range != "[" + std::to_string(variable.width - 1) + ":0]")
                fail("range " + range + " of " + path);
            const auto [at, isNew] = variables.emplace(path, variable);
            if (!isNew)
                fail("two variables " + path);
            codes.emplace(code, &at->second);
        } else {
            fail("keyword " + word);
        }
    }
    if (scopes.size() > 1)
        fail("$scope without $upscope");
    section();
    const auto change = [&](const std::string& code, char kind, const std::string& value) {
        const auto [first, last] = codes.equal_range(code);
        if (first == last)
            fail("unknown identifier " + code);
        for (auto at = first; at != last; ++at) {
            Variable& variable = *at->second;
            if ((kind == 'r') != (variable.type == "real") || (kind == 's' && variable.width != 1))
                fail("a value of the wrong kind for " + at->first);
            variable.changes[end] = kind == 'r' ? real(value) : widened(value, variable.width);
        }
    };
    bool timed = false;
    while (in >> word) {
        const char first = word[0];
        if (first == '#') {
            const std::uint64_t time = std::stoull(word.substr(1));
            if (timed && time < end)
                fail("time goes back to " + word);
            end = time;
            timed = true;
        } else if (first == '$') {
            if (word != "$dumpvars" && word != "$dumpoff" && word != "$dumpon" && word != "$end")
                fail("keyword " + word);
        } else if (first == 'b' || first == 'B' || first == 'r' || first == 'R') {
            const std::string value = word.substr(1);
            change(next(), first == 'b' || first == 'B' ? 'b' : 'r', value);
        } else {
            change(word.substr(1), 's', word.substr(0, 1));
        }
    }
}

void VcdFile::dropRepeated() {
    for (auto& [path, one] : variables) {
        Variable& variable = one;
        std::string before;
        std::erase_if(variable.changes, [&before](const auto& change) {
            const bool repeated = change.second == before;
            before = change.second;
            return repeated;
        });
    }
}

} // namespace Quorvex::test
