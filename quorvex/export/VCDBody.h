#pragma once

#include "quorvex/analysis/Directory.h"
#include "quorvex/export/CounterCell.h"
#include "quorvex/export/VCDIdentifier.h"
#include "quorvex/export/VCDValue.h"
#include "quorvex/export/VCDWire.h"
#include "quorvex/export/VCDWriter.h"
#include "quorvex/format/Digits.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvex {

namespace vcd {

/// The unit of times: how many are a second, and its name.
using Unit = std::pair<std::uint64_t, const char*>;
/// One that a tick is a whole number of, where there is one.
const Unit& unitOf(std::uint64_t frequency);

} // namespace vcd

/// The variables that there are. Every change of one is a line of the body.
class CVCDWriter::Body {
public:
    using Wire = vcd::Wire;

    explicit Body(CVCDWriter& writer) : m_writer(writer) {}

    /// The variable of a declaration; null when there are no more.
    Wire* declare(vcd::Declaration&& declaration);
    /// The same without looking at the declaration, which `make` makes, where it is not new.
    template <class Make> Wire* known(const ValueKey& key, Make make) {
        Wire** const variable = m_known.find(key);
        return variable && *variable ? *variable : keep(key, declare(make()));
    }
    /// A new bit for a function of a thread, or a process of a core; null when there are no more.
    Wire* declareDetail(vcd::Area area, std::uint32_t owner, std::uint32_t id);
    /// Calls `take` with each declaration and its variable, in the order of the file.
    void eachVariable(const std::function<void(const vcd::Declaration&, Wire&)>& take);
    /// The type that a variable has by all its values so far.
    static vcd::Type typeOf(const Wire& variable) {
        return variable.counter && variable.counter->type() == CounterType::Double ? vcd::Type::Real : variable.type;
    }

    /// What changes from now on does so at that time.
    void setTime(std::uint64_t time) {
        if (time == m_time)
            return;
        if (m_hasPulses) [[unlikely]]
            endPulses();
        m_isTimeTold = m_isTimeTold && time == m_time;
        m_time = time;
    }
    std::uint64_t time() const { return m_time; }
    /// Nothing changes any more after that time.
    void end(std::uint64_t time) {
        setTime(time);
        if (m_hasPulses)
            endPulses();
        m_writer.bodyEnds(changeAt(0));
    }

    // Each writes a change of a variable; of null, none.
    [[gnu::always_inline]] void changeBit(Wire* variable, bool isSet) {
        if (!variable)
            return;
        variable->isTold = true;
        char* to = changeAt(1);
        *to++ = isSet ? '1' : '0';
        m_writer.bodyEnds(variable->code.put(to));
    }
    void changeNumber(Wire* variable, std::uint64_t number) {
        if (!variable)
            return;
        variable->isTold = true;
        m_writer.bodyEnds(putNumber(changeAt(vcd::kNumberRoom), variable->code, number));
    }
    [[gnu::always_inline]] void change(Wire* variable, const vcd::NumberLine& line) {
        if (line.isNone())
            return;
        variable->isTold = true;
        m_writer.bodyEnds(line.put(changeAt(vcd::NumberLine::kRoom)));
    }
    void change(Wire* variable, const IVCDValue& value);
    /// The value of a counter.
    void changeCounter(Wire* variable, std::uint64_t value);
    void changeBits(Wire* variable, const unsigned char* bytes, unsigned count);
    void changeToIdle(Wire* variable);
    void changeToUnknown(Wire* variable);
    /// One for a tick.
    void pulse(Wire* event);

    /// Makes those of the variables unknown that have been told, if `isGone` takes their declaration.
    void forget(const std::function<bool(const vcd::Declaration&)>& isGone);
    /// Makes all unknown for a gap, which lasts until the next change.
    void turnOff();
    bool isOff() const { return m_isOff; }

    /// A line that was written before the types of all counters were known, with the value as it has to be.
    void fixLine(std::string_view line, std::string& to) const;

private:
    static constexpr std::string_view kOn = "$dumpon\n$end\n";
    static constexpr unsigned kTimeRoom = 2 + kMostDigits + kOn.size(); ///< of lines with a time

    struct Detail {
        std::uint32_t id;
        Wire variable;
    };

    /// Has known() find it.
    Wire* keep(const ValueKey& key, Wire* variable);
    /// The code of a new variable; none when there are no more.
    vcd::Code newCode();
    void endPulses();
    /// Where a change of the time that is shown is put: room for a value of that many characters, and a code.
    char* changeAt(std::size_t longestValue) {
        char* const to = m_writer.bodyRoom(kTimeRoom + longestValue + vcd::Code::kRoom);
        return m_isTimeTold ? to : putTime(to);
    }
    char* putTime(char* to);
    void putLine(std::string_view line) { m_writer.bodyEnds(std::ranges::copy(line, changeAt(line.size())).out); }

    CVCDWriter& m_writer;
    std::uint64_t m_time = 0;      ///< of the packet that is shown
    bool m_isTimeTold = false;     ///< it stands in the body
    std::uint64_t m_frequency = 0; ///< of the clock, when the next one was found
    std::uint64_t m_unitsPerSecond = vcd::unitOf(0).first;
    bool m_hasPulses = false;    ///< there are some in m_pulses
    bool m_isOff = false;        ///< the dump is, for a gap
    std::vector<Wire*> m_pulses; ///< events whose pulse ends with the next tick
    CVCDIdentifier m_identifiers;
    std::map<vcd::Declaration, Wire> m_variables; ///< but for the details, of which there can be very many:
    std::map<std::pair<vcd::Area, std::uint32_t>, std::deque<Detail>> m_details; ///< by area and owner
    std::map<std::string, Wire*, std::less<>> m_counters; ///< variables whose type is found out, by code
    Directory<ValueKey, Wire*> m_known;                   ///< those that are looked up often
};

} // namespace Quorvex
