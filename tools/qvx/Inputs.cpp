#include "Inputs.h"

#include "Arguments.h"

#include <algorithm>
#include <filesystem>
#include <string_view>

namespace qvx {

namespace {

constexpr std::string_view kEnding = ".qvx";

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// The run of digits that a text begins with, without zeros in front, taken off it.
std::string_view takeNumber(std::string_view& text) {
    const std::size_t end = std::min(text.find_first_not_of("0123456789"), text.size());
    std::string_view digits = text.substr(0, end);
    text.remove_prefix(end);
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    return digits;
}

/// Whether a name comes before another: thread_9 before thread_10.
bool isBefore(const std::string& oneName, const std::string& otherName) {
    std::string_view one = oneName, other = otherName;
    while (!one.empty() && !other.empty()) {
        if (isDigit(one[0]) && isDigit(other[0])) {
            const std::string_view left = takeNumber(one), right = takeNumber(other);
            if (left.size() != right.size())
                return left.size() < right.size();
            if (left != right)
                return left < right;
        } else {
            if (one[0] != other[0])
                return one[0] < other[0];
            one.remove_prefix(1);
            other.remove_prefix(1);
        }
    }
    return one.empty() != other.empty() ? one.empty() : oneName < otherName;
}

} // namespace

Option Inputs::addTo(Verb& verb, const char* help, bool isRequired) {
    Option files = verb.option("FILES", m_given, help);
    return isRequired ? files.required() : files;
}

std::vector<std::string> Inputs::filesOf(const std::vector<std::string>& allGiven) {
    namespace fs = std::filesystem;
    if (std::ranges::count(allGiven, "-") > 1)
        throw Misuse("FILES", "only one of the traces can be standard input");
    std::vector<std::string> all;
    for (const std::string& given : allGiven) {
        std::error_code error;
        if (given == "-" || !fs::is_directory(given, error)) {
            all.push_back(given);
            continue;
        }
        std::vector<std::string> names;
        for (fs::directory_iterator at(given, error); !error && at != fs::directory_iterator(); at.increment(error)) {
            const std::string name = at->path().filename().string();
            std::error_code unknown;
            if (name.size() > kEnding.size() && name.ends_with(kEnding) && !at->is_directory(unknown))
                names.push_back(name);
        }
        if (error)
            throw Failure(given, error.message());
        if (names.empty())
            throw Failure(given, "has no files *.qvx");
        std::ranges::sort(names, isBefore);
        for (const std::string& name : names)
            all.push_back((fs::path(given) / name).generic_string());
    }
    return all;
}

} // namespace qvx
