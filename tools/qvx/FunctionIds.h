#pragma once

#include <cstdint>
#include <set>
#include <string_view>
#include <utility>

namespace qvx {

/// Gives functions identifiers that are the same in every run and every thread, because they follow from what the
/// function is: its name, its source and its line. Few functions have to share them then, and none does: one that
/// comes to an identifier that is taken gets the next that follows. Who has it depends on the order, so functions are
/// best given in one that is the same in every run.
class FunctionIds {
public:
    /// None of those that are taken is given.
    explicit FunctionIds(std::set<std::uint32_t> taken) : m_taken(std::move(taken)) {}

    /// The identifier of a function that has not been given before.
    std::uint32_t give(std::string_view name, std::string_view file, unsigned line);
    /// How many functions did not get the first identifier that follows from them.
    std::uint64_t collisions() const { return m_collisions; }

private:
    std::set<std::uint32_t> m_taken;
    std::uint64_t m_collisions = 0;
};

} // namespace qvx
