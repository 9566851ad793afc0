#pragma once

#include "Symbols.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace Quorvex::test {

inline std::string bytesOf(const std::string& hex) {
    std::string bytes;
    for (std::size_t at = 0; at + 1 < hex.size(); at += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    return bytes;
}

/// A program that is built in a directory of its own, as "program", and what it tells of itself.
class BuiltProgram {
public:
    struct Module {
        std::uint64_t from, to, bias;
        std::string buildId, path;
    };
    struct Place {
        std::string word;
        std::uint64_t address;
        std::string number;
    };

    /// The one that names its functions.
    static std::string source() { return std::filesystem::canonical(QUORVEX_TEST_NAMED).string(); }

    /// Runs a command in the directory; what it has to complain of is in "err" there.
    bool shell(const std::string& command) const {
        return std::system(("cd '" + directory.path().string() + "' && " + command + " 2>err").c_str()) == 0;
    }
    /// False where the compiler is not there, or cannot do that.
    bool build(const std::string& compiler, const std::string& from = source()) const {
        return shell(compiler + " '" + from + "' -o program -ldl -Wl,--build-id");
    }
    void run() {
        ASSERT_TRUE(shell("./program >out"));
        std::istringstream out(directory.content("out"));
        for (std::string line; std::getline(out, line);) {
            std::istringstream words(line);
            std::string word;
            words >> word >> std::hex;
            if (word == "module") {
                Module& module = modules.emplace_back();
                words >> module.from >> module.to >> module.bias >> module.buildId >> module.path;
                if (module.path.empty())
                    module.path = directory.path("program");
            } else {
                Place& place = places.emplace_back(Place{word, 0, ""});
                words >> place.address >> place.number;
            }
        }
        ASSERT_FALSE(modules.empty());
    }
    const Module& moduleOf(std::uint64_t address) const {
        return *std::ranges::find_if(
            modules, [&](const Module& module) { return module.from <= address && address < module.to; });
    }
    qvx::Symbols& symbols(const Module& module) {
        auto& its = m_symbols[module.path];
        if (!its)
            its = std::make_unique<qvx::Symbols>(module.path, bytesOf(module.buildId), directory.path("debug"));
        return *its;
    }
    const qvx::Symbols::Function& function(std::uint64_t address) {
        const Module& module = moduleOf(address);
        return symbols(module).function(address - module.bias);
    }
    std::vector<qvx::Symbols::Frame> frames(std::uint64_t address) {
        const Module& module = moduleOf(address);
        return symbols(module).frames(address - module.bias);
    }

    TemporaryDirectory directory;
    std::vector<Module> modules;
    std::vector<Place> places;

private:
    std::map<std::string, std::unique_ptr<qvx::Symbols>> m_symbols;
};

} // namespace Quorvex::test
