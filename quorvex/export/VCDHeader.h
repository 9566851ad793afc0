#pragma once

#include "quorvex/analysis/TraceNames.h"
#include "quorvex/export/VCDBody.h"
#include "quorvex/export/VCDWire.h"
#include "quorvex/export/VCDWriter.h"

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace Quorvex {

/// Writes what stands before the body: the scopes, the variables in them by their names, and what these are at first.
class CVCDWriter::Header {
public:
    /// With the unit of times.
    Header(CVCDWriter& writer, const char* unit) : m_writer(writer), m_unit(unit) {}

    /// Writes it; false when that fails.
    bool write(Body& body);

private:
    void add(const vcd::Declaration& declaration, const vcd::Wire& variable);
    /// Writes what there is of the text, if that is much, or all of it.
    void flush(bool isEnd = false);
    /// Opens and closes scopes until the variable may follow.
    void goTo(const vcd::Declaration& variable);
    void enter(std::string& opened, const std::string& name);
    void leave(std::string& opened);
    /// The name of a number, made legal; empty when it has none.
    std::string given(TextSort sort, std::uint64_t number) const;
    /// Its identifier, without that of its state machine.
    std::string idText(TextSort sort, std::uint64_t number) const;
    /// A name that the scope does not have yet.
    std::string nameOf(const vcd::Declaration& variable);

    CVCDWriter& m_writer;
    const char* m_unit;
    bool m_isWritten = true;
    std::string m_text;  ///< that has not been written
    std::string m_scope; ///< that is open, and the one of details inside it
    std::string m_detail;
    std::set<std::string> m_used; ///< names in the innermost of them
};

} // namespace Quorvex
