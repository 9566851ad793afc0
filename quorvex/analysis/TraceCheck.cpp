#include "quorvex/analysis/TraceCheck.h"

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/PageFormat.h"

#include <array>
#include <cstring>
#include <iterator>
#include <map>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

namespace Quorvex {

namespace {

constexpr std::string_view kRules[] = {"damage", "cut",       "text",       "page",    "restated", "fill",
                                       "frame",  "reference", "definition", "balance", "time"};

/// So many page ends tell whether a trace is paged.
constexpr unsigned kTellingBreaks = 8;
/// So many functions may be open in a thread; deeper ones are only counted.
constexpr std::size_t kMostOpen = 0x10000;

/// What is defined and then used, by its sort; null for what nothing defines.
constexpr const char* wordFor(TextSort sort) {
    constexpr const char* kWords[] = {
        nullptr, nullptr,     "function", "process", nullptr,  "type",          "variable",
        nullptr, "counter",   "counter",  "event",   "signal", "state machine", "instance of a state machine",
        "state", "transition"};
    static_assert(std::size(kWords) == unsigned(TextSort::Transition) + 1);
    return kWords[unsigned(sort)];
}

/// An identifier as tables show it.
std::string hexOf(std::uint32_t id) {
    char text[2 + 2 * sizeof id];
    return {text, putHexValue(text, id)};
}

std::string countOf(std::uint64_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

class Check {
public:
    Check(TraceFile& trace, void (*take)(void*, const Finding&), void* to) : m_trace(trace), m_take(take), m_to(to) {}

    void run() {
        while (m_trace.advance())
            look(m_trace.cursor());
        end();
    }

private:
    /// What is open on a core; functions of threads that are not known among it.
    struct Core {
        CallStack<std::uint32_t> functions{kMostOpen};
        CallStack<std::uint32_t> interrupts{kMostOpen};
        std::optional<std::uint32_t> process;
    };

    void look(const CTraceCursor& packet) {
        m_offset = packet.offset();
        m_code = packet.TraceCode();
        if (m_textIsOpen)
            tellAt(m_textOf.first, m_textOf.second, CheckRule::Text, "its text breaks off: another packet follows");
        if (m_isEnded)
            tell(CheckRule::Frame, "follows the end of the trace");
        lookAtBytes(packet);
        lookAtPage(packet);
        lookAtFrame(packet);
        const PacketPointer made(packet.packet());
        if (made) {
            const ContextSort relativeTo = sortOfRelative(m_code);
            if (relativeTo != ContextSort::None && !m_contexts.knows(relativeTo) &&
                !std::exchange(toldOf(relativeTo), true))
                tell(CheckRule::Reference, std::string("is relative to the ") + nameOf(relativeTo) +
                                               " context, which no packet has told before");
            const PacketPointer absolute(m_contexts.absolute(*made));
            lookAtContents(absolute ? *absolute : *made);
            m_contexts.note(*made);
        }
        m_textIsOpen = packet.textState() == CTraceCursor::Text::Open;
        m_textOf = {m_offset, m_code};
        m_isEnded = m_code == EndOfTrace;
        m_end = packet.end();
    }

    void lookAtBytes(const CTraceCursor& packet) {
        if (m_offset > m_end)
            tellAt(m_end, Invalid, CheckRule::Damage, countOf(m_offset - m_end, "byte") + " that are no packet");
        const unsigned announced = static_cast<unsigned char>(packet.payload()[-1]);
        if (announced > packet.Length() && packet.textState() != CTraceCursor::Text::Counted)
            tell(CheckRule::Damage, countOf(announced - packet.Length(), "byte") + " behind its fields");
        const std::string_view payload(packet.payload(), packet.Length());
        if (m_code == Fill && payload.find_first_not_of('\x80') != payload.npos)
            tell(CheckRule::Fill, "is filled with other bytes than 0x80");
    }

    // A plain trace has packets across what would be page ends.
    void lookAtPage(const CTraceCursor& packet) {
        if (pages::crossesEnd(m_offset, packet.end())) {
            ++m_crossedBreaks;
            tellOfPage(CheckRule::Page, "stands on two pages");
        } else if (pages::isBreak(m_offset)) {
            ++m_keptBreaks;
            m_expected.clear();
            for (const ContextSort sort : kContextSorts) {
                if (m_contexts.knows(sort))
                    m_expected.push_back(sort);
            }
        }
        if (!m_expected.empty()) {
            const ContextSort sort = m_expected.front();
            char sync[CPacketHeader::Len() + UINT8_MAX];
            const unsigned size = m_contexts.writeSync(sort, sync, sizeof sync);
            if (sortOfSync(m_code) == sort && packet.Length() + CPacketHeader::Len() == size &&
                std::memcmp(packet.payload(), sync + CPacketHeader::Len(), packet.Length()) == 0) {
                m_expected.erase(m_expected.begin());
            } else {
                m_expected.clear();
                tellOfPage(CheckRule::Restated, std::string("stands where its page should restate the ") +
                                                    nameOf(sort) + " context as it is there");
            }
        }
        if (m_crossedBreaks + m_keptBreaks >= kTellingBreaks)
            tellHeldBack();
    }
    void tellOfPage(CheckRule rule, std::string text) {
        m_heldBack.push_back({m_offset, m_code, rule, std::move(text)});
    }
    void tellHeldBack() {
        if (m_keptBreaks > m_crossedBreaks) {
            for (const Finding& finding : m_heldBack)
                m_take(m_to, finding);
        }
        m_heldBack.clear();
    }

    void lookAtFrame(const CTraceCursor& packet) {
        if (const auto enabled = packet.as<CTraceEnabled>()) {
            if (m_frameBegin != kUnknown64)
                tell(CheckRule::Frame, "begins a frame before the last one has ended");
            if (enabled->Version() != 0)
                tell(CheckRule::Frame, "is of version " + std::to_string(enabled->Version()) + " of the format, not 0");
            m_frameBegin = m_offset;
            m_frameLength = enabled->FrameLen();
        } else if (m_code == TraceDisabled) {
            const std::uint64_t length = packet.end() - m_frameBegin;
            if (m_frameBegin == kUnknown64)
                tell(CheckRule::Frame, "ends a frame that has not begun");
            else if (m_frameLength != kUnknown64 && m_frameLength != length)
                tellAt(m_frameBegin, TraceEnabled, CheckRule::Frame,
                       "tells a frame of " + countOf(m_frameLength, "byte") + ", which has " + std::to_string(length));
            m_frameBegin = kUnknown64;
        } else if (m_code == EndOfTrace) {
            m_frameBegin = kUnknown64;
        }
    }

    void lookAtContents(const CPacket& packet) {
        const KindFacts& facts = factsOf(m_code);
        if (const std::optional<Subject> subject = subjectOf(packet); subject && wordFor(subject->sort)) {
            const auto key =
                std::pair(subject->sort == TextSort::CounterUnit ? TextSort::Counter : subject->sort, subject->id);
            if (facts.role == Role::Definition) {
                m_defined.insert(key);
            } else if (facts.role == Role::Undefinition) {
                if (m_defined.erase(key) == 0)
                    tell(CheckRule::Definition, "undefines " + textOf(*subject) + ", which is not defined");
            } else if (m_defined.insert(key).second) {
                tell(CheckRule::Definition, "is about " + textOf(*subject) + ", which has not been defined before");
            }
        }
        if (facts.role == Role::Happening)
            lookAtTime(packet);
        visitKind(
            packet, [this](const auto& kind) requires requires { this->balance(kind); } { balance(kind); });
    }

    void lookAtTime(const CPacket& packet) {
        const std::uint64_t tick = absoluteTickOf(packet);
        if (tick == kUnknown64)
            return;
        std::uint64_t& last = lastTickAt(packet);
        if (last != kUnknown64 && tick < last)
            tell(CheckRule::Time,
                 "its tick " + std::to_string(tick) + " is before the last one of its place, " + std::to_string(last));
        last = tick;
    }

    void balance(const CFunctionEnter& packet) { enter(functionsOf(packet), packet.TgtFuncId()); }
    void balance(const CFunctionLeave& packet) { leave(functionsOf(packet), packet.TgtFuncId(), "function"); }
    void balance(const CHWExceptionEnter& packet) { enter(coreOf(packet).interrupts, packet.ExceptionId()); }
    void balance(const CHWExceptionLeave& packet) {
        leave(coreOf(packet).interrupts, packet.ExceptionId(), "exception");
    }
    void balance(const CProcessEnter& packet) { coreOf(packet).process = packet.ProcId(); }
    void balance(const CProcessLeave& packet) {
        std::optional<std::uint32_t>& process = coreOf(packet).process;
        if (process != packet.ProcId())
            tell(CheckRule::Balance, "leaves process " + hexOf(packet.ProcId()) + ", which does not run there");
        process.reset();
    }

    static void enter(CallStack<std::uint32_t>& stack, std::uint32_t id) {
        stack.enter([id] { return id; });
    }
    void leave(CallStack<std::uint32_t>& stack, std::uint32_t id, const char* what) {
        const std::optional<std::size_t> left = stack.leave([id](std::uint32_t open) { return open == id; });
        const std::string it = std::string(what) + " " + hexOf(id);
        if (!left) {
            tell(CheckRule::Balance, "leaves " + it + ", which has not been entered");
        } else {
            if (*left > 1)
                tell(CheckRule::Balance, "leaves " + it + " while " + countOf(*left - 1, what) +
                                             " that it has called " + (*left == 2 ? "is" : "are") + " not left");
            for (std::size_t i = 0; i < *left; ++i)
                stack.pop();
        }
    }

    std::uint64_t& lastTickAt(const CPacket& packet) {
        const auto at = [this](ContextSort sort, std::uint32_t one, std::uint32_t other) -> std::uint64_t& {
            return m_ticks.try_emplace({sort, one, other}, kUnknown64).first->second;
        };
        if (const auto* core = contextOf<CCoreContext>(packet))
            return at(ContextSort::Core, core->HWCtx(), core->SWCtx());
        if (const auto* bus = contextOf<CBusContext>(packet))
            return at(ContextSort::Bus, bus->HWCtx(), bus->Master());
        if (const auto* system = contextOf<CSystemContext>(packet))
            return at(ContextSort::System, system->Channel(), system->Master());
        return at(ContextSort::None, 0, 0);
    }
    Core& coreOf(const CCoreContext& context) { return m_cores[context.HWCtx()]; }
    CallStack<std::uint32_t>& functionsOf(const CCoreContext& context) {
        if (isUnknown(FieldMeaning::Context, context.SWCtx()))
            return coreOf(context).functions;
        return m_threads.try_emplace(context.SWCtx(), kMostOpen).first->second;
    }

    static std::string textOf(const Subject& subject) {
        const auto id = static_cast<std::uint32_t>(subject.id);
        std::string text = std::string(wordFor(subject.sort)) + " " + hexOf(id);
        if (subject.sort > TextSort::StateMachine)
            text += " of state machine " + hexOf(static_cast<std::uint32_t>(subject.id >> 32));
        return text;
    }

    void end() {
        tellHeldBack();
        const TraceReport& report = m_trace.report();
        if (const TraceTextReader::Error* error = m_trace.tableError()) {
            tellAt(report.damage.first, Invalid, CheckRule::Damage,
                   countOf(report.damage.places, "row") + " that cannot be read, the first in line " +
                       std::to_string(error->line) + ": " + error->text);
            return;
        }
        if (report.endOffset > m_end)
            tellAt(m_end, Invalid, CheckRule::Damage,
                   countOf(report.endOffset - m_end, "byte") + " that are no packet");
        switch (report.end) {
        case TraceEnd::Empty:
            tellAt(0, Invalid, CheckRule::Cut,
                   "the trace is empty; a program that records it has not written yet, or was killed before");
            break;
        case TraceEnd::Missing:
            tellAt(m_trace.size(), Invalid, CheckRule::Cut, "the trace ends within a frame");
            break;
        case TraceEnd::InPacket:
            tellAt(report.endOffset, Invalid, CheckRule::Cut, "the trace ends within a packet");
            break;
        case TraceEnd::InText:
            tellAt(m_textOf.first, m_textOf.second, CheckRule::Cut, "the trace ends within its text");
            break;
        default:
            break;
        }
    }

    void tell(CheckRule rule, std::string text) { tellAt(m_offset, m_code, rule, std::move(text)); }
    void tellAt(std::uint64_t offset, tagTCode kind, CheckRule rule, std::string text) {
        m_take(m_to, {offset, kind, rule, std::move(text)});
    }
    bool& toldOf(ContextSort sort) { return m_told[unsigned(sort)]; }

    TraceFile& m_trace;
    void (*m_take)(void*, const Finding&);
    void* m_to;
    std::uint64_t m_offset = 0; ///< of the packet that is looked at
    tagTCode m_code = Invalid;
    std::uint64_t m_end = 0; ///< of the packet before
    bool m_isEnded = false;  ///< by it
    bool m_textIsOpen = false;
    std::pair<std::uint64_t, tagTCode> m_textOf{0, Invalid};
    CContexts m_contexts;
    std::array<bool, 4> m_told{};
    unsigned m_crossedBreaks = 0;
    unsigned m_keptBreaks = 0;
    std::vector<ContextSort> m_expected; ///< to be restated next
    std::vector<Finding> m_heldBack;     ///< about pages, until it is known whether there are any
    std::uint64_t m_frameBegin = kUnknown64;
    std::uint64_t m_frameLength = kUnknown64;
    std::set<std::pair<TextSort, std::uint64_t>> m_defined;
    std::map<std::tuple<ContextSort, std::uint32_t, std::uint32_t>, std::uint64_t> m_ticks; ///< the last ones, by place
    std::map<std::uint32_t, CallStack<std::uint32_t>> m_threads; ///< their functions, whatever core they are on
    std::map<std::uint32_t, Core> m_cores;
};

} // namespace

std::string_view nameOf(CheckRule rule) {
    return kRules[unsigned(rule)];
}

void detail::checkTrace(TraceFile& trace, void (*take)(void*, const Finding&), void* to) {
    Check(trace, take, to).run();
}

} // namespace Quorvex
