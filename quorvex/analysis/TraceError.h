#pragma once

#include "quorvex/format/Exception.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Quorvex {

/// Thrown where a trace cannot be read: "FILE: REASON", or "FILE: offset N: REASON".
class QUORVEX_API TraceError : public CQVXException {
public:
    /// Of the whole file, or at an offset in it.
    TraceError(std::string file, std::string reason);
    TraceError(std::string file, std::uint64_t offset, std::string reason);
    ~TraceError() override;

    const char* what() const noexcept override;                   ///< all of it as a line
    const std::string& file() const { return m_facts->file; }     ///< as it was named
    const std::string& reason() const { return m_facts->reason; } ///< without file and offset
    std::uint64_t offset() const { return m_facts->offset; }      ///< 0 where it is of the whole file

private:
    struct Facts {
        std::string file;
        std::string reason;
        std::uint64_t offset;
        std::string what;
    };

    std::shared_ptr<const Facts> m_facts; ///< shared, because copies of an exception must not throw
};

} // namespace Quorvex
