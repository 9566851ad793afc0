#include "tests/support/TraceSteps.h"

#include "quorvex/packets/PacketKinds.h"
#include "tests/support/RandomPackets.h"

#include <bit>
#include <sstream>
#include <stdexcept>

namespace Quorvex::test {

namespace {

template <class Packet> std::string wire(Packet packet) {
    return wireOf(packet);
}

std::uint32_t idIn(const std::string& word, std::size_t from) {
    return static_cast<std::uint32_t>(std::stoull(word.substr(from)));
}

std::string definition(const std::string& word, const char* name) {
    const CCoreContext context(0, 1, 2, kUnknown64);
    switch (word.at(1)) {
    case '!':
        return wire(CEventDefine(idIn(word, 2), Trigger, name));
    case '^':
        return wire(CEventDefine(idIn(word, 2), Overflow, name));
    case '#':
        return wire(CCounterDefine(context, idIn(word, 2), 0, name));
    default:
        return wire(CFunctionDefine(context, idIn(word, 1), name));
    }
}

} // namespace

std::string traceOfSteps(const std::string& steps) {
    std::istringstream in(steps);
    std::string trace, word, tick, thread, value;
    while (in >> word) {
        if (word[0] == '@') {
            trace += wire(CTimestamp(0, std::uint64_t{idIn(word, 1)}));
            continue;
        }
        in >> tick;
        if (word[0] == '=') {
            trace += definition(word, tick.c_str());
            continue;
        }
        if (word[0] == '"') {
            trace += wire(CMessage(std::stoull(tick), 0, word.c_str() + 1));
            continue;
        }
        in >> thread;
        const std::size_t at = thread.find('@');
        const CCoreContext context(std::stoull(tick), at == thread.npos ? 1 : idIn(thread, at + 1),
                                   thread[0] == '?' ? ~0U : idIn(thread, 0), kUnknown64);
        const std::uint32_t id = idIn(word, 1);
        switch (word[0]) {
        case '+':
            trace += wire(CFunctionEnter(context, id));
            break;
        case '-':
            trace += wire(CFunctionLeave(context, id));
            break;
        case '!':
            trace += wire(CEvent(context, id));
            break;
        case '#':
            in >> value;
            trace += wire(CCounterValue(context, id,
                                        value.find('.') == value.npos
                                            ? TCounter_t(static_cast<std::uint64_t>(std::stoll(value)))
                                            : TCounter_t(std::stod(value))));
            break;
        case '%':
            in >> value;
            trace +=
                wire(CCounterValueVar(context, id,
                                      {value.find('.') == value.npos ? static_cast<std::uint32_t>(std::stoll(value))
                                                                     : std::bit_cast<std::uint32_t>(std::stof(value)),
                                       std::uint32_t{0}}));
            break;
        default:
            throw std::invalid_argument(word);
        }
    }
    return trace;
}

} // namespace Quorvex::test
