#include "Selection.h"

#include "Arguments.h"

#include <cstdint>

namespace qvx {

struct Selection::Options {
    std::uint64_t limit = ~std::uint64_t{0};
    std::uint64_t taken = 0;
};

Selection::Selection() : m_options(std::make_unique<Options>()) {}

Selection::~Selection() = default;

void Selection::addOptions(Verb& verb) {
    verb.option("--limit", m_options->limit, "Take the first N packets only");
}

bool Selection::isComplete() const {
    return m_options->taken == m_options->limit;
}

bool Selection::takes(const Quorvex::CPacket&) {
    ++m_options->taken;
    return true;
}

} // namespace qvx
