#include "tests/support/Samples.h"

#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace Quorvex::test {

namespace {

constexpr std::uint64_t kTick = 0x0102030405060708, kAddress = 0x5152535455565758;
constexpr std::uint32_t kId = 0x51525354, kSecond = 0x61626364, kThird = 0x71727374, kFourth = 0x81828384;
constexpr std::uint8_t kByte = 0x61;
constexpr char kName[] = "ab";
const CCoreContext kCore(kTick, 0x11121314, 0x21222324, 0x3132333435363738);
const CRelCoreContext kRel(0x41, 0x42);
const CData kTwoBytes(std::uint16_t{0x6162});
constexpr std::uint8_t kReversed[] = {0x65, 0x64, 0x63, 0x62, 0x61}; // on the wire the other way round
const CData kFiveBytes(kReversed, 5);

// The same on the wire:       Tick                    HWCtx       SWCtx       IP
const std::string kCoreWire = "08 07 06 05 04 03 02 01 14 13 12 11 24 23 22 21 38 37 36 35 34 33 32 31";
const std::string kIdWire = "54 53 52 51", kSecondWire = "64 63 62 61", kThirdWire = "74 73 72 71";
const std::string kNameWire = "7e 02 61 62";

/// A packet with these values.
template <class P, const auto&... values> CPacket* of() {
    return new P(values...);
}

/// The absolute and the relative form of packets of a core.
struct Form {
    std::string prefix; ///< of the names
    std::string context;
    unsigned size; ///< of the context
};
const Form kForms[] = {{"", kCoreWire, 24}, {"Rel", "41 42", 2}};

/// A kind in both forms.
struct Pair {
    using Make = CPacket* (*)();
    const char* name;
    Make make[2];
    const char* header[2];

    Pair(const char* kind, Make absolute, Make relative, const char* ofAbsolute, const char* ofRelative)
        : name(kind), make{absolute, relative}, header{ofAbsolute, ofRelative} {}
};
#define QUORVEX_PAIR(kind, header, relHeader, ...)                                                                     \
    Pair(#kind, of<C##kind, kCore, __VA_ARGS__>, of<CRel##kind, kRel, __VA_ARGS__>, header, relHeader)

struct Table {
    std::vector<Sample> rows;

    void add(const std::string& name, CPacket* (*make)(), const std::string& wire, const std::vector<Cut>& stream,
             const std::vector<Cut>& buffer) {
        rows.push_back({name, make, wire, stream, buffer});
    }
    /// One that says the same on both media.
    void add(const std::string& name, CPacket* (*make)(), const std::string& wire, const std::vector<Cut>& cuts) {
        add(name, make, wire, cuts, cuts);
    }
    /// One form of a pair, with what is behind its context.
    void add(const Pair& kind, bool relative, const std::string& rest, const std::vector<Cut>& stream,
             const std::vector<Cut>& buffer) {
        const Form& form = kForms[relative];
        add(form.prefix + kind.name, kind.make[relative], kind.header[relative] + form.context + rest, stream, buffer);
    }
};

std::vector<Cut> operator+(std::vector<Cut> cuts, const std::vector<Cut>& more) {
    cuts.insert(cuts.end(), more.begin(), more.end());
    return cuts;
}

/// What the shared class of functions, processes, types or variables says.
struct ObjectTexts {
    std::string context, id, packet;

    ObjectTexts(const std::string& base, const std::string& idText) {
        const std::string start = "C" + base + ": Read-In constructor could not ";
        context = start + "read context data!";
        id = start + "read " + idText + "!";
        // Only the relative classes say "read" here.
        packet = start + (base.starts_with("Rel") ? "read packet data!" : "packet data!");
    }
    std::vector<Cut> stream(unsigned contextSize) const { return {{contextSize, context}, {contextSize + 4, id}}; }
};

void addInstructions(Table& table) {
    const std::string context = ": Read-In Constructor could not read context data.", rel = kForms[1].context;
    table.add("RelExecInsn", of<CRelExecInsn, kRel>, "00 02" + rel, {{2, "CRelExecInsn" + context}});
    table.add("RelNonExecInsn", of<CRelNonExecInsn, kRel>, "01 02" + rel, {{2, "CRelNonExecInsn" + context}});
    table.add("ExecInsn", of<CExecInsn, kCore>, "10 18" + kCoreWire, {{24, "CExecInsn" + context}});
    table.add("NonExecInsn", of<CNonExecInsn, kCore>, "11 18" + kCoreWire, {{24, "CNonExecInsn" + context}});
    table.add("TraceBroken", of<CTraceBroken, kCore>, "7b 18" + kCoreWire,
              {{24, "CTraceBroken: Read-In Constructor could not read context from stream"}});

    const Pair branches[] = {QUORVEX_PAIR(DirectBranch, "12 20", "02 0a", kAddress),
                             QUORVEX_PAIR(IndirectBranch, "13 20", "03 0a", kAddress)};
    for (const bool relative : {false, true}) {
        const auto& [prefix, wire, size] = kForms[relative];
        const std::string start = "C" + prefix + "BranchBase: Read-In constructor could not read ";
        for (const Pair& kind : branches)
            table.add(kind, relative, "58 57 56 55 54 53 52 51",
                      {{size, start + "context from input stream."},
                       {size + 8, start + "branch target address from input stream."}},
                      {{size + 8, start + (relative ? "from input buffer." : "from input.")}});
    }
    const Pair exceptions[] = {QUORVEX_PAIR(HWExceptionLeave, "14 1c", "04 06", kId),
                               QUORVEX_PAIR(HWExceptionEnter, "15 1c", "05 06", kId)};
    for (const bool relative : {false, true}) {
        const auto& [prefix, wire, size] = kForms[relative];
        const std::string start = "C" + prefix + "HWExceptionBase: Read-In Constructor could not read ";
        for (const Pair& kind : exceptions)
            table.add(kind, relative, kIdWire, {{size, start + "context data."}, {size + 4, start + "exception id."}},
                      {{size + 4, start + "data."}});
    }
}

void addTraceControl(Table& table) {
    static constexpr std::uint32_t kHWCtx = 0x11121314;
    static constexpr std::uint64_t kFrequency = 0x2122232425262728;
    static constexpr std::uint8_t kThree = 3;
    const std::string text = "CTimestamp: Read-In Constructor coud not read timestamp from stream";
    const std::string tick = "08 07 06 05 04 03 02 01", hwCtx = "14 13 12 11", frequency = "28 27 26 25 24 23 22 21";
    table.add("Timestamp", of<CTimestamp, kTick>, "77 08" + tick, {{8, text}});
    table.add("TimestampOfCore", of<CTimestamp, kTick, kHWCtx>, "77 0c" + tick + hwCtx, {{12, text}});
    table.add("TimestampWithFrequency", of<CTimestamp, kTick, kFrequency>, "77 10" + tick + frequency, {{16, text}});
    table.add("TimestampOfCoreWithFrequency", of<CTimestamp, kTick, kHWCtx, kFrequency>,
              "77 14" + tick + hwCtx + frequency, {{20, text}});
    const auto traceEnabled = []() -> CPacket* {
        auto* enabled = new CTraceEnabled(0x1112131415161718, MixExpanded, true);
        enabled->Version(0x01020304);
        return enabled;
    };
    //                                         Version     FrameLen                 FrameConfig
    table.add("TraceEnabled", traceEnabled, "79 10 04 03 02 01  18 17 16 15 14 13 12 11  07 00 00 00",
              {{16, "CTraceEnabled: Read-In constructor could no read payload data."}});
    table.add("TraceDisabled", of<CTraceDisabled>, "7a 00", {});
    table.add("EndOfTrace", of<CEndOfTrace>, "7c 00", {});
    table.add("Fill", of<CFill, kThree>, "7d 03 80 80 80",
              {{3, "CFill: Read-In Constructor could not read valid Fill packet from stream."}});
    table.add("Sync", of<CSync, kCore>, "7f 18" + kCoreWire,
              {{24, "CSync: Read-In Constructor could not read absolute context from stream"}},
              {{24, "CSync: Read-In Constructor invalid buffer size supplied"}});
}

void addStrings(Table& table) {
    static constexpr std::int8_t kLevel = -2, kOther = 0x12;
    static constexpr char kText[] = "abc", kMessage[] = "hi";
    const std::string payload = ": Read-In constructor could not read payload.", tick = "08 07 06 05 04 03 02 01";
    const std::string text = "CMessage: Read-In constructor could not read followup message.";
    table.add("CharString", of<CCharString, kText>, "7e 03 61 62 63", {{3, "CCharString" + payload}});
    table.add("Message", of<CMessage, kTick, kLevel, kMessage>, "78 09" + tick + "fe | 7e 02 68 69",
              {{9, "CMessage" + payload}, {10, ""}, {13, text}});
    table.add("MessageWithoutText", of<CMessage, kTick, kOther>, "78 09" + tick + "12", {{9, "CMessage" + payload}});
}

/// A function, a process, a type or a variable.
struct Object {
    Pair pair;
    const char* base; ///< the class that it shares with its like
    const char* idText;
    std::string fields = ""; ///< behind the id
    unsigned size = 0;       ///< of those fields
    const char* named = "";  ///< what the text behind the packet defines
};

void add(Table& table, const std::vector<Object>& objects) {
    for (const auto& [pair, base, idText, fields, more, named] : objects) {
        for (const bool relative : {false, true}) {
            const auto& [prefix, wire, size] = kForms[relative];
            const ObjectTexts texts(prefix + base, idText);
            const std::string text = "C" + prefix + pair.name + ": Read-In constructor could not read valid " + named +
                                     " definition string.";
            const unsigned end = size + 4 + more;
            std::vector<Cut> cuts = {{end, texts.packet}};
            if (*named) // nothing behind the packet: it has no name
                cuts = cuts + std::vector<Cut>{{end + 1, ""}, {end + 4, text}};
            table.add(pair, relative, kIdWire + fields + (*named ? kNameWire : ""), texts.stream(size) + cuts, cuts);
        }
    }
}

void addObjects(Table& table) {
    add(table, {{QUORVEX_PAIR(FunctionUndefine, "91 1c", "81 06", kId), "FunctionBase", "function id"},
                {QUORVEX_PAIR(FunctionEnter, "92 1c", "82 06", kId), "FunctionBase", "function id"},
                {QUORVEX_PAIR(FunctionLeave, "93 1c", "83 06", kId), "FunctionBase", "function id"},
                {QUORVEX_PAIR(ProcessUndefine, "95 1c", "85 06", kId), "ProcessBase", "funcion id"},
                {QUORVEX_PAIR(ProcessEnter, "96 1c", "86 06", kId), "ProcessBase", "funcion id"},
                {QUORVEX_PAIR(ProcessLeave, "97 1c", "87 06", kId), "ProcessBase", "funcion id"},
                {QUORVEX_PAIR(TypeUndefine, "b1 1c", "a1 06", kId), "TypeBase", "type id"},
                {QUORVEX_PAIR(VariableUndefine, "b3 1c", "a3 06", kId), "VariableBase", "var id"},
                {QUORVEX_PAIR(VariableRead, "b4 1c", "a4 06", kId), "VariableAccBase", "var id"},
                {QUORVEX_PAIR(VariableWrite, "b5 1c", "a5 06", kId), "VariableAccBase", "var id"}});

    // The caller and the function that is called.
    const ObjectTexts enter("FunctionBase", "function id"), relEnter("RelFunctionBase", "function id");
    table.add("FunctionEnterFromSource", of<CFunctionEnter, kCore, kSecond, kId>,
              "92 20" + kCoreWire + kSecondWire + kIdWire, {{24, enter.context}, {32, enter.id}},
              {{28, enter.packet}, {32, enter.id}});
    table.add("RelFunctionLeaveFromSource", of<CRelFunctionLeave, kRel, kSecond, kId>,
              "83 0a 41 42" + kSecondWire + kIdWire, {{2, relEnter.context}, {10, relEnter.id}},
              {{6, relEnter.packet}, {10, relEnter.id}});

    // A value of a width that fits an integer, and one that does not.
    const ObjectTexts access("VariableAccBase", "var id"), relAccess("RelVariableAccBase", "var id");
    table.add("VariableReadOfTwoBytes", of<CVariableRead, kCore, kId, kTwoBytes>,
              "b4 1e" + kCoreWire + kIdWire + "62 61", access.stream(24) + std::vector<Cut>{{30, access.packet}},
              {{30, access.packet}});
    table.add("RelVariableWriteOfFiveBytes", of<CRelVariableWrite, kRel, kId, kFiveBytes>,
              "a5 0b 41 42" + kIdWire + "61 62 63 64 65",
              relAccess.stream(2) + std::vector<Cut>{{11, relAccess.packet}}, {{11, relAccess.packet}});
}

void addDefinitions(Table& table) {
    add(table,
        {{QUORVEX_PAIR(FunctionDefine, "90 1c", "80 06", kId, kName), "FunctionBase", "function id", "", 0, "function"},
         {QUORVEX_PAIR(ProcessDefine, "94 1c", "84 06", kId, kName), "ProcessBase", "funcion id", "", 0, "function"},
         {QUORVEX_PAIR(TypeDefine, "b0 1d", "a0 07", kId, kByte, kName), "TypeBase", "type id", "61", 1, "type"},
         {QUORVEX_PAIR(VariableDefine, "b2 20", "a2 0a", kId, kSecond, kName), "VariableBase", "var id", kSecondWire, 4,
          "variable"}});
}

void addDataAccess(Table& table) {
    const Pair kinds[] = {QUORVEX_PAIR(ReadData, "32 25", "22 0f", kAddress, kFiveBytes),
                          QUORVEX_PAIR(WriteData, "33 25", "23 0f", kAddress, kFiveBytes)};
    for (const bool relative : {false, true}) {
        const auto& [prefix, wire, size] = kForms[relative];
        const std::string start = "C" + prefix + "DataBase: Read-In constructor ";
        const std::string data = start + (relative ? "could not read data." : "could not access data.");
        const std::string tooSmall = start + "invalid input buffer size.";
        for (const Pair& kind : kinds)
            table.add(kind, relative, "58 57 56 55 54 53 52 51  61 62 63 64 65",
                      {{size, start + "could not read context data."}, {size + 13, data}},
                      {{relative ? 10U : 37U, tooSmall}, {size + 13, data}});
    }
}

void addCounters(Table& table) {
    static const TCounter_t kValue(std::uint64_t{0x6162636465666768});
    static const TCounterIdx_t kFirst(std::uint64_t{0x7172737475767778}), kLast(std::uint64_t{0x8182838485868788});
    static const TCounterIdx_t kBoth[] = {kFirst, kLast};
    static const CCounterIndexDimN kIndex(2, kBoth);
    static const std::uint8_t kThree[] = {0x61, 0x62, 0x63}, kOther[] = {0x71, 0x72, 0x73};
    static const CCounterValueVarPayload kOdd(TVarCounter_t(kThree, 3), TVarCounter_t(kOther, 3));
    static const CCounterValueVarPayload kEven(std::uint16_t{0x6162}, std::uint16_t{0x7172});
    const std::string value = "68 67 66 65 64 63 62 61", first = "78 77 76 75 74 73 72 71",
                      last = "88 87 86 85 84 83 82 81";
    for (const bool relative : {false, true}) {
        const Form& form = kForms[relative];
        const unsigned size = form.size;
        const std::string prefix = "C" + form.prefix, base = prefix + "CounterBase: Read-In constructor ";
        const std::vector<Cut> stream = {{size, base + "could not read context data!"},
                                         {size + 4, base + "could not read counter id!"}};
        const std::vector<Cut> buffer = {{size + 4, base + "invalid buffer size supplied!"}};
        const auto add = [&](const Pair& kind, const std::string& payload, const std::vector<Cut>& moreStream,
                             const std::vector<Cut>& moreBuffer) {
            table.add(kind, relative, kIdWire + payload, stream + moreStream, buffer + moreBuffer);
        };
        add(QUORVEX_PAIR(CounterUndefine, "52 1c", "42 06", kId), "", {}, {});

        const std::string define = prefix + "CounterDefineBase: Read-In constructor could not read ";
        const std::string dimension = define + "counter dimension and definition!";
        const std::string cut = relative ? dimension : define + "subsequent counter definition!";
        // In memory a cut definition counts as none.
        const std::vector<Cut> defineStream = {{size + 5, dimension}, {size + 6, ""}, {size + 9, cut}};
        const std::vector<Cut> defineBuffer = {{size + 5, dimension}};
        add(QUORVEX_PAIR(CounterDefine, "50 1d", "40 07", kId, kByte, kName), "61" + kNameWire, defineStream,
            defineBuffer);
        add(QUORVEX_PAIR(CounterDefineUnit, "51 1d", "41 07", kId, kByte, kName), "61" + kNameWire, defineStream,
            defineBuffer);

        const std::string valueText = prefix + "CounterValueBase: Read-In Constructor ";
        const std::string id =
            relative ? valueText + "could not read basic data." : base + "could not read counter id!";
        const std::string noValue = valueText + "could not read counter value.";
        const auto addValue = [&](const Pair& kind, const std::string& payload, const Cut& valueStream,
                                  const Cut& valueBuffer, const std::vector<Cut>& moreStream,
                                  const std::vector<Cut>& moreBuffer) {
            table.add(kind, relative, kIdWire + payload,
                      std::vector<Cut>{stream[0], {size + 4, id}, valueStream} + moreStream,
                      buffer + std::vector<Cut>{valueBuffer} + moreBuffer);
        };
        const Cut noValueCut{size + 12, noValue};
        addValue(QUORVEX_PAIR(CounterValue, "54 24", "44 0e", kId, kValue), value, noValueCut,
                 relative ? noValueCut : Cut{size + 12, valueText + "copuld not read from buffer."}, {}, {});
        const auto indexed = [&](const Pair& kind, const std::string& indices, unsigned end,
                                 const char* basic = "basic value.", const char* inMemory = "counter index.") {
            const std::string could = prefix + kind.name + ": Read-In Constructor could not read ";
            const Cut basicCut = basic ? Cut{size + 12, could + basic} : noValueCut;
            addValue(kind, value + indices, basicCut, basicCut, {{end, could + "counter index."}},
                     {{end, could + inMemory}});
        };
        indexed(QUORVEX_PAIR(CounterValueDim1, "55 2c", "45 16", kId, kValue, kFirst), first, size + 20);
        indexed(QUORVEX_PAIR(CounterValueDim2, "56 34", "46 1e", kId, kValue, kFirst, kLast), first + last, size + 28,
                relative ? "basic couner value." : "basic value.");
        indexed(QUORVEX_PAIR(CounterValueDimN, "57 34", "47 1e", kId, kValue, kIndex), first + last, size + 28,
                relative ? nullptr : "basic value", relative ? "counter index." : "index value");

        const std::string var = prefix + "CounterValueVar: Read-In Constructor could not read variable " +
                                (relative ? "counter value and index from stream" : "length counter data from stream");
        Pair kind = QUORVEX_PAIR(CounterValueVar, "53 22", "43 0c", kId, kOdd);
        kind.name = "CounterValueVarOfThreeBytes";
        add(kind, "61 62 63 71 72 73", {{size + 10, var}}, {{size + 10, var}});
        kind = QUORVEX_PAIR(CounterValueVar, "53 20", "43 0a", kId, kEven);
        kind.name = "CounterValueVarOfTwoBytes";
        add(kind, "62 61 72 71", {{size + 8, var}}, {{size + 8, var}});
    }
}

void addBus(Table& table) {
    static const CBusContext kBus(kTick, 0x11121314, 0x21222324);
    static const CSystemContext kSystem(kTick, 0x11121314, 0x21222324);
    static const CRelBusContext kRelBus(0x41);
    static const CRelSystemContext kRelSystem(0x41);
    static const CBusDataSignals kSignals(std::uint8_t{0xF2}), kRead(BusAccRead), kWrite(BusAccWrite);
    static const CData kData(std::uint16_t{0x7172});
    static const unsigned char kLines[] = {0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68,
                                           0x71, 0x72, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78};
    static const CSignalMask kMask(16, kLines), kValues(64, kLines), kValid(64, kLines + 8);
    //                           Tick                    HWCtx/Chan. Master
    const std::string context = "08 07 06 05 04 03 02 01 14 13 12 11 24 23 22 21";
    const std::string address = "58 57 56 55 54 53 52 51";
    const std::string lines = "61 62 63 64 65 66 67 68  71 72 73 74 75 76 77 78";
    const auto could = [](const char* kind, const char* what) {
        return "C" + std::string(kind) + ": Read-In Constructor could not read " + what;
    };
    const char *absolute = "absolute context from stream", *onBus = "bus context from stream",
               *payload = "payload from stream";
    table.add("BusSync", of<CBusSync, kBus>, "72 10" + context, {{16, could("BusSync", absolute)}});
    table.add("SystemSync", of<CSystemSync, kSystem>, "73 10" + context, {{16, could("SystemSync", absolute)}});

    const auto define = [&](const char* kind, CPacket* (*make)(), const std::string& wire, unsigned before) {
        table.add(kind, make, wire + kIdWire + "61 62" + kNameWire,
                  {{before, could(kind, onBus)},
                   {before + 6, could(kind, payload)},
                   {before + 7, ""},
                   {before + 10, could(kind, payload)}});
    };
    /// The context and the rest are read one after the other from a stream; memory must have a smallest size.
    const auto add = [&](const char* kind, CPacket* (*make)(), const std::string& wire, const Cut& before,
                         const Cut& smallest, const Cut& rest) {
        const Cut end{rest.below, could(kind, rest.text.c_str())};
        table.add(kind, make, wire, {{before.below, could(kind, before.text.c_str())}, end},
                  {{smallest.below, "C" + std::string(kind) + ": Read-In Constructor " + smallest.text}, end});
    };
    const char *size = "invalid buffer size supplied", *space = "invalid buffer space supplied.",
               *called = "called with invalid buffer size", *calledDot = "called with invalid buffer size.";
    add("BusData", of<CBusData, kBus, kSignals, kData>, "d0 13" + context + "f2 72 71", {16, "context from stream"},
        {17, size}, {19, "data from stream"});
    add("RelBusData", of<CRelBusData, kRelBus, kSignals, kData>, "c0 04 41 f2 72 71", {1, absolute}, {2, space},
        {4, payload});
    add("BusAddrData", of<CBusAddrData, kBus, kWrite, kAddress, kData>, "d1 1b" + context + "02" + address + "72 71",
        {16, "context from stream"}, {25, size}, {27, "data from stream"});
    add("RelBusAddrData", of<CRelBusAddrData, kRelBus, kRead, kAddress, kData>, "c1 0c 41 01" + address + "72 71",
        {1, absolute}, {10, space}, {12, payload});
    define("SignalDefine", of<CSignalDefine, kBus, kId, kMask, kName>, "d2 16" + context, 16);
    define("RelSignalDefine", of<CRelSignalDefine, kRelBus, kId, kMask, kName>, "c2 07 41", 1);
    add("SignalUndefine", of<CSignalUndefine, kBus, kId>, "d3 14" + context + kIdWire, {16, onBus}, {20, called},
        {20, payload});
    add("RelSignalUndefine", of<CRelSignalUndefine, kRelBus, kId>, "c3 05 41" + kIdWire, {1, onBus}, {5, called},
        {5, payload});
    add("Signal", of<CSignal, kBus, kValues, kValid>, "d4 20" + context + lines, {16, absolute}, {16, called},
        {32, payload});
    add("RelSignal", of<CRelSignal, kRelBus, kValues, kValid>, "c4 11 41" + lines, {1, onBus}, {1, calledDot},
        {17, payload});
    add("SystemData", of<CSystemData, kSystem, kData>, "d5 12" + context + "72 71", {16, absolute}, {16, calledDot},
        {18, "payload from stream."});
    add("RelSystemData", of<CRelSystemData, kRelSystem, kData>, "c5 03 41 72 71", {1, absolute}, {1, calledDot},
        {3, payload});
}

void addEvents(Table& table) {
    static constexpr EEventType kType = Watchpoint;
    static constexpr std::uint64_t kAt = 0x9192939495969798;
    static const CData kOneByte(std::uint8_t{0xA1});
    const std::string fourth = "84 83 82 81", at = "98 97 96 95 94 93 92 91";
    const std::string event = ": Read-In Constructor could not read event data.";
    table.add("EventDefine", of<CEventDefine, kId, kType, kName>, "74 08" + kIdWire + "00 00 00 20" + kNameWire,
              {{8, "CEventDefine" + event},
               {9, ""},
               {12, "CEventDefine: Read-In constructor could not read valid event definition string."}});
    table.add("EventUndefine", of<CEventUndefine, kId>, "75 04" + kIdWire, {{4, "CEventUndefine" + event}});
    table.add("Event", of<CEvent, kCore, kId, kTwoBytes>, "76 1e" + kCoreWire + kIdWire + "62 61",
              {{24, "CEvent: Read-In Constructor could not read context data."}, {30, "CEvent" + event}});

    /// What is behind the first four bytes, and the text where it is cut; nothing there is no text.
    const auto add = [&](const std::string& kind, CPacket* (*make)(), const std::string& wire, unsigned fields,
                         bool named) {
        const std::string text =
            "C" + kind + ": Read-In constructor could not read valid state machine definition string.";
        std::vector<Cut> cuts = {{4, "CStateMachineBase: Read-In constructor could not packet data!"}, {fields, text}};
        if (named)
            cuts = cuts + std::vector<Cut>{{fields + 1, ""}, {fields + 4, text}};
        table.add(kind, make, wire + (named ? kNameWire : ""), cuts);
    };
    add("StateMachineDefine", of<CStateMachineDefine, kId, kName>, "d6 04" + kIdWire, 4, true);
    add("StateMachineInstanceDefine", of<CStateMachineInstanceDefine, kId, kSecond, kName>,
        "d7 08" + kIdWire + kSecondWire, 8, true);
    add("StateDefine", of<CStateDefine, kId, kSecond, kName>, "d8 08" + kIdWire + kSecondWire, 8, true);
    const std::string ids = kIdWire + kSecondWire + kThirdWire + fourth;
    add("TransitionDefine", of<CTransitionDefine, kId, kSecond, kThird, kFourth, kName>, "d9 10" + ids, 16, true);
    add("StateMachineUndefine", of<CStateMachineUndefine, kId>, "da 04" + kIdWire, 4, false);
    add("InitialState", of<CInitialState, kId, kSecond, kThird, kFourth, kAt>, "db 18" + ids + at, 24, false);
    add("Transition", of<CTransition, kId, kSecond, kThird, kFourth, kAt, kOneByte>, "dc 19" + ids + at + "a1", 25,
        false);
}

} // namespace

const std::vector<Sample>& samples() {
    static const std::vector<Sample> rows = [] {
        Table table;
        addInstructions(table);
        addTraceControl(table);
        addStrings(table);
        addObjects(table);
        addDefinitions(table);
        addDataAccess(table);
        addCounters(table);
        addBus(table);
        addEvents(table);
        return table.rows;
    }();
    return rows;
}

std::vector<Sample> shownSamples() {
    static constexpr std::string_view kShown =
        " BusAddrData BusSync CharString CounterDefine CounterDefineUnit CounterUndefine CounterValue "
        "CounterValueDim1 CounterValueDim2 CounterValueVarOfThreeBytes DirectBranch Event EventDefine "
        "EventUndefine ExecInsn Fill FunctionDefine FunctionEnterFromSource FunctionUndefine HWExceptionEnter "
        "InitialState Message MessageWithoutText ProcessDefine ProcessEnter ReadData RelBusData "
        "RelCounterValueDimN RelExecInsn RelFunctionLeaveFromSource RelProcessDefine RelSystemData "
        "RelVariableWriteOfFiveBytes Signal SignalDefine StateDefine StateMachineDefine StateMachineInstanceDefine "
        "Sync SystemSync Timestamp TimestampOfCoreWithFrequency TraceBroken TraceDisabled TraceEnabled Transition "
        "TransitionDefine TypeDefine VariableDefine VariableRead VariableReadOfTwoBytes ";
    std::vector<Sample> shown;
    std::ranges::copy_if(samples(), std::back_inserter(shown),
                         [](const Sample& sample) { return kShown.find(" " + sample.name + " ") != kShown.npos; });
    return shown;
}

} // namespace Quorvex::test
