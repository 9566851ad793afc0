#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

class Symbols;

/// Names of functions in traces of a program that is still recorded, and whose calls tell addresses (docs/format.md).
/// That is for those who look: of two functions whose addresses have the same lower half, and of two that stood at one
/// address, the one of the module that was told first is taken for both. resolve() knows better, once all is recorded.
class LiveNames {
public:
    LiveNames();
    LiveNames(const LiveNames&) = delete;
    LiveNames& operator=(const LiveNames&) = delete;
    ~LiveNames();

    /// Learns what traces tell of programs before their first call. Throws TraceError.
    void read(const std::vector<std::string>& files);
    /// The name of the function that calls know by that number; empty where there is none.
    std::string nameOf(std::uint64_t id);

private:
    struct Module {
        std::uint64_t from, to, bias;
        std::string path, buildId;
        bool operator==(const Module&) const = default;
    };

    std::vector<Module> m_modules;
    std::map<std::pair<std::string, std::string>, std::unique_ptr<Symbols>> m_symbols; ///< by path and build id
};

} // namespace qvx
