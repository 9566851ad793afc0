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
    Header(CVCDWriter& writer, const char* unit);

    /// The next variable of the file.
    bool add(const vcd::Declaration& declaration, const vcd::Wire& variable);
    /// All are there.
    bool finish();

private:
    bool flush();
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
    std::string m_text;
    std::string m_initial;
    std::string m_scope; ///< that is open, and the one of details inside it
    std::string m_detail;
    std::set<std::string> m_used; ///< names in the innermost of them
};

} // namespace Quorvex
