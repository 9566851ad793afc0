#include "quorvex/analysis/TraceError.h"

#include <utility>

namespace Quorvex {

TraceError::TraceError(std::string file, std::string reason) {
    std::string what = file + ": " + reason;
    m_facts = std::make_shared<Facts>(Facts{std::move(file), std::move(reason), 0, std::move(what)});
}

TraceError::TraceError(std::string file, std::uint64_t offset, std::string reason) {
    std::string what = file + ": offset " + std::to_string(offset) + ": " + reason;
    m_facts = std::make_shared<Facts>(Facts{std::move(file), std::move(reason), offset, std::move(what)});
}

TraceError::~TraceError() = default;

const char* TraceError::what() const noexcept {
    return m_facts->what.c_str();
}

} // namespace Quorvex
