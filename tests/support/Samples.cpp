#include "tests/support/Samples.h"

#include "quorvex/packets/PacketKinds.h"

namespace Quorvex::test {

namespace {

//                        Tick                    HWCtx       SWCtx       IP
constexpr char kCore[] = "08 07 06 05 04 03 02 01 14 13 12 11 24 23 22 21 38 37 36 35 34 33 32 31";
constexpr char kRel[] = "41 42"; // RelTick RelIP

CCoreContext core() {
    return CCoreContext(0x0102030405060708, 0x11121314, 0x21222324, 0x3132333435363738);
}
CRelCoreContext rel() {
    return CRelCoreContext(0x41, 0x42);
}

const std::uint8_t kFiveBytes[] = {0x65, 0x64, 0x63, 0x62, 0x61}; // on the wire the other way round

template <class P, class... Values> CPacket* packet(Values... values) {
    return new P(values...);
}

struct Table {
    std::vector<Sample> rows;

    void add(const std::string& name, CPacket* (*make)(), const std::string& wire, std::vector<Cut> stream,
             std::vector<Cut> buffer) {
        rows.push_back({name, make, wire, std::move(stream), std::move(buffer)});
    }
};

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

template <class P> CPacket* plain() {
    return new P();
}
template <class P> CPacket* ofCore() {
    return new P(core());
}
template <class P> CPacket* ofRel() {
    return new P(rel());
}
template <class P> CPacket* coreId() {
    return new P(core(), 0x51525354U);
}
template <class P> CPacket* relId() {
    return new P(rel(), 0x51525354U);
}
template <class P> CPacket* coreName() {
    return new P(core(), 0x51525354U, "ab");
}
template <class P> CPacket* relName() {
    return new P(rel(), 0x51525354U, "ab");
}

void addInstructions(Table& table) {
    const auto insn = [&table](const char* name, CPacket* (*make)(), const std::string& wire, unsigned size,
                               const std::string& text) {
        table.add(name, make, wire, {{size, text}}, {{size, text}});
    };
    const std::string context = ": Read-In Constructor could not read context data.";
    insn("RelExecInsn", ofRel<CRelExecInsn>, std::string("00 02") + kRel, 2, "CRelExecInsn" + context);
    insn("RelNonExecInsn", ofRel<CRelNonExecInsn>, std::string("01 02") + kRel, 2, "CRelNonExecInsn" + context);
    insn("ExecInsn", ofCore<CExecInsn>, std::string("10 18") + kCore, 24, "CExecInsn" + context);
    insn("NonExecInsn", ofCore<CNonExecInsn>, std::string("11 18") + kCore, 24, "CNonExecInsn" + context);
    insn("TraceBroken", ofCore<CTraceBroken>, std::string("7b 18") + kCore, 24,
         "CTraceBroken: Read-In Constructor could not read context from stream");

    const std::string target = "58 57 56 55 54 53 52 51";
    const std::vector<Cut> branchStream = {
        {24, "CBranchBase: Read-In constructor could not read context from input stream."},
        {32, "CBranchBase: Read-In constructor could not read branch target address from input stream."}};
    const std::vector<Cut> relBranchStream = {
        {2, "CRelBranchBase: Read-In constructor could not read context from input stream."},
        {10, "CRelBranchBase: Read-In constructor could not read branch target address from input stream."}};
    const std::vector<Cut> branchBuffer = {{32, "CBranchBase: Read-In constructor could not read from input."}};
    const std::vector<Cut> relBranchBuffer = {
        {10, "CRelBranchBase: Read-In constructor could not read from input buffer."}};
    constexpr std::uint64_t kTarget = 0x5152535455565758;
    table.add(
        "DirectBranch", [] { return packet<CDirectBranch>(core(), kTarget); }, "12 20" + (kCore + target), branchStream,
        branchBuffer);
    table.add(
        "IndirectBranch", [] { return packet<CIndirectBranch>(core(), kTarget); }, "13 20" + (kCore + target),
        branchStream, branchBuffer);
    table.add(
        "RelDirectBranch", [] { return packet<CRelDirectBranch>(rel(), kTarget); }, "02 0a" + (kRel + target),
        relBranchStream, relBranchBuffer);
    table.add(
        "RelIndirectBranch", [] { return packet<CRelIndirectBranch>(rel(), kTarget); }, "03 0a" + (kRel + target),
        relBranchStream, relBranchBuffer);

    const auto exception = [&table](const char* name, CPacket* (*make)(), const std::string& wire,
                                    const std::string& base, unsigned size) {
        const std::string start = base + ": Read-In Constructor could not read ";
        table.add(name, make, wire, {{size, start + "context data."}, {size + 4, start + "exception id."}},
                  {{size + 4, start + "data."}});
    };
    exception("HWExceptionLeave", coreId<CHWExceptionLeave>, std::string("14 1c") + kCore + "54 53 52 51",
              "CHWExceptionBase", 24);
    exception("HWExceptionEnter", coreId<CHWExceptionEnter>, std::string("15 1c") + kCore + "54 53 52 51",
              "CHWExceptionBase", 24);
    exception("RelHWExceptionLeave", relId<CRelHWExceptionLeave>, std::string("04 06") + kRel + "54 53 52 51",
              "CRelHWExceptionBase", 2);
    exception("RelHWExceptionEnter", relId<CRelHWExceptionEnter>, std::string("05 06") + kRel + "54 53 52 51",
              "CRelHWExceptionBase", 2);
}

void addTraceControl(Table& table) {
    const auto one = [&table](const char* name, CPacket* (*make)(), const std::string& wire, unsigned size,
                              const std::string& text) {
        table.add(name, make, wire, {{size, text}}, {{size, text}});
    };
    const std::string timestamp = "CTimestamp: Read-In Constructor coud not read timestamp from stream";
    one(
        "Timestamp", [] { return packet<CTimestamp>(0x0102030405060708); }, "77 08 08 07 06 05 04 03 02 01", 8,
        timestamp);
    one(
        "TimestampOfCore", [] { return packet<CTimestamp>(0x0102030405060708, 0x11121314U); },
        "77 0c 08 07 06 05 04 03 02 01  14 13 12 11", 12, timestamp);
    one(
        "TimestampWithFrequency",
        [] { return packet<CTimestamp>(0x0102030405060708, std::uint64_t{0x2122232425262728}); },
        "77 10 08 07 06 05 04 03 02 01  28 27 26 25 24 23 22 21", 16, timestamp);
    one(
        "TimestampOfCoreWithFrequency",
        [] { return packet<CTimestamp>(0x0102030405060708, 0x11121314U, 0x2122232425262728); },
        "77 14 08 07 06 05 04 03 02 01  14 13 12 11  28 27 26 25 24 23 22 21", 20, timestamp);
    one(
        "TraceEnabled",
        [] {
            auto* enabled = new CTraceEnabled(0x1112131415161718, MixExpanded, true);
            enabled->Version(0x01020304);
            return static_cast<CPacket*>(enabled);
        },
        // Version     FrameLen                 FrameConfig
        "79 10 04 03 02 01  18 17 16 15 14 13 12 11  07 00 00 00", 16,
        "CTraceEnabled: Read-In constructor could no read payload data.");
    table.add("TraceDisabled", plain<CTraceDisabled>, "7a 00", {}, {});
    table.add("EndOfTrace", plain<CEndOfTrace>, "7c 00", {}, {});
    one(
        "Fill", [] { return packet<CFill>(std::uint8_t{3}); }, "7d 03 80 80 80", 3,
        "CFill: Read-In Constructor could not read valid Fill packet from stream.");
    table.add("Sync", ofCore<CSync>, std::string("7f 18") + kCore,
              {{24, "CSync: Read-In Constructor could not read absolute context from stream"}},
              {{24, "CSync: Read-In Constructor invalid buffer size supplied"}});
}

void addStrings(Table& table) {
    const std::string payload = "CCharString: Read-In constructor could not read payload.";
    table.add("CharString", [] { return packet<CCharString>("abc"); }, "7e 03 61 62 63", {{3, payload}},
              {{3, payload}});
    const std::string message = "CMessage: Read-In constructor could not read payload.";
    const std::string text = "CMessage: Read-In constructor could not read followup message.";
    table.add("Message", [] { return packet<CMessage>(0x0102030405060708U, std::int8_t{-2}, "hi"); },
              "78 09 08 07 06 05 04 03 02 01  fe | 7e 02 68 69", {{9, message}, {10, ""}, {13, text}},
              {{9, message}, {10, ""}, {13, text}});
    table.add("MessageWithoutText", [] { return packet<CMessage>(0x0102030405060708U, std::int8_t{0x12}); },
              "78 09 08 07 06 05 04 03 02 01  12", {{9, message}}, {{9, message}});
}

void addObjects(Table& table) {
    const std::string id = "54 53 52 51";
    struct Kind {
        const char* name;
        const char* code;
        const char* relCode;
        CPacket* (*make)();
        CPacket* (*makeRel)();
        const char* base;
        const char* idText;
    };
    const Kind kinds[] = {
        {"FunctionUndefine", "91", "81", coreId<CFunctionUndefine>, relId<CRelFunctionUndefine>, "FunctionBase",
         "function id"},
        {"FunctionEnter", "92", "82", coreId<CFunctionEnter>, relId<CRelFunctionEnter>, "FunctionBase", "function id"},
        {"FunctionLeave", "93", "83", coreId<CFunctionLeave>, relId<CRelFunctionLeave>, "FunctionBase", "function id"},
        {"ProcessUndefine", "95", "85", coreId<CProcessUndefine>, relId<CRelProcessUndefine>, "ProcessBase",
         "funcion id"},
        {"ProcessEnter", "96", "86", coreId<CProcessEnter>, relId<CRelProcessEnter>, "ProcessBase", "funcion id"},
        {"ProcessLeave", "97", "87", coreId<CProcessLeave>, relId<CRelProcessLeave>, "ProcessBase", "funcion id"},
        {"TypeUndefine", "b1", "a1", coreId<CTypeUndefine>, relId<CRelTypeUndefine>, "TypeBase", "type id"},
        {"VariableUndefine", "b3", "a3", coreId<CVariableUndefine>, relId<CRelVariableUndefine>, "VariableBase",
         "var id"},
        {"VariableRead", "b4", "a4", coreId<CVariableRead>, relId<CRelVariableRead>, "VariableAccBase", "var id"},
        {"VariableWrite", "b5", "a5", coreId<CVariableWrite>, relId<CRelVariableWrite>, "VariableAccBase", "var id"},
    };
    for (const Kind& kind : kinds) {
        const ObjectTexts texts(kind.base, kind.idText);
        table.add(kind.name, kind.make, kind.code + (" 1c " + (kCore + id)), texts.stream(24), {{28, texts.packet}});
        const ObjectTexts relTexts("Rel" + std::string(kind.base), kind.idText);
        table.add("Rel" + std::string(kind.name), kind.makeRel, kind.relCode + (" 06 " + (kRel + id)),
                  relTexts.stream(2), {{6, relTexts.packet}});
    }

    // The caller and the function that is called.
    const ObjectTexts enter("FunctionBase", "function id");
    const ObjectTexts relEnter("RelFunctionBase", "function id");
    const std::string source = "64 63 62 61";
    table.add("FunctionEnterFromSource", [] { return packet<CFunctionEnter>(core(), 0x61626364U, 0x51525354U); },
              "92 20" + (kCore + source) + id, {{24, enter.context}, {32, enter.id}},
              {{28, enter.packet}, {32, enter.id}});
    table.add("RelFunctionLeaveFromSource", [] { return packet<CRelFunctionLeave>(rel(), 0x61626364U, 0x51525354U); },
              "83 0a" + (kRel + source) + id, {{2, relEnter.context}, {10, relEnter.id}},
              {{6, relEnter.packet}, {10, relEnter.id}});

    // A value of a width that fits an integer, and one that does not.
    const ObjectTexts access("VariableAccBase", "var id");
    const ObjectTexts relAccess("RelVariableAccBase", "var id");
    table.add("VariableReadOfTwoBytes",
              [] { return packet<CVariableRead>(core(), 0x51525354U, CData(std::uint16_t{0x6162})); },
              "b4 1e" + (kCore + id) + "62 61", {{24, access.context}, {28, access.id}, {30, access.packet}},
              {{28, access.packet}, {30, access.packet}});
    table.add("RelVariableWriteOfFiveBytes",
              [] { return packet<CRelVariableWrite>(rel(), 0x51525354U, CData(kFiveBytes, 5)); },
              "a5 0b" + (kRel + id) + "61 62 63 64 65",
              {{2, relAccess.context}, {6, relAccess.id}, {11, relAccess.packet}},
              {{6, relAccess.packet}, {11, relAccess.packet}});
}

void addDefinitions(Table& table) {
    const std::string id = "54 53 52 51";
    const std::string name = "7e 02 61 62";
    struct Kind {
        const char* name;
        const char* code;
        const char* relCode;
        CPacket* (*make)();
        CPacket* (*makeRel)();
        const char* base;
        const char* idText;
        std::string fields; ///< behind the id
        unsigned size;      ///< of those fields
        const char* object;
    };
    const Kind kinds[] = {
        {"FunctionDefine", "90 1c", "80 06", coreName<CFunctionDefine>, relName<CRelFunctionDefine>, "FunctionBase",
         "function id", "", 0, "function"},
        {"ProcessDefine", "94 1c", "84 06", coreName<CProcessDefine>, relName<CRelProcessDefine>, "ProcessBase",
         "funcion id", "", 0, "function"},
        {"TypeDefine", "b0 1d", "a0 07",
         [] { return packet<CTypeDefine>(core(), 0x51525354U, std::uint8_t{0x61}, "ab"); },
         [] { return packet<CRelTypeDefine>(rel(), 0x51525354U, std::uint8_t{0x61}, "ab"); }, "TypeBase", "type id",
         "61", 1, "type"},
        {"VariableDefine", "b2 20", "a2 0a",
         [] { return packet<CVariableDefine>(core(), 0x51525354U, 0x61626364U, "ab"); },
         [] { return packet<CRelVariableDefine>(rel(), 0x51525354U, 0x61626364U, "ab"); }, "VariableBase", "var id",
         "64 63 62 61", 4, "variable"},
    };
    const auto cuts = [](const ObjectTexts& texts, unsigned context, unsigned more, const std::string& text,
                         bool stream) {
        std::vector<Cut> result = stream ? texts.stream(context) : std::vector<Cut>{{context + 4, texts.packet}};
        const unsigned end = context + 4 + more;
        if (more > 0)
            result.push_back({end, texts.packet});
        result.push_back({end + 1, ""}); // nothing behind the packet: it has no name
        result.push_back({end + 4, text});
        return result;
    };
    for (const Kind& kind : kinds) {
        for (const bool relative : {false, true}) {
            const std::string prefix = relative ? "Rel" : "";
            const ObjectTexts texts(prefix + kind.base, kind.idText);
            const std::string text = "C" + prefix + kind.name + ": Read-In constructor could not read valid " +
                                     kind.object + " definition string.";
            const unsigned context = relative ? 2 : 24;
            table.add(prefix + kind.name, relative ? kind.makeRel : kind.make,
                      (relative ? kind.relCode : kind.code) + std::string(relative ? kRel : kCore) + id + kind.fields +
                          name,
                      cuts(texts, context, kind.size, text, true), cuts(texts, context, kind.size, text, false));
        }
    }
}

void addDataAccess(Table& table) {
    const std::string access = "58 57 56 55 54 53 52 51  61 62 63 64 65"; // address, five bytes
    constexpr std::uint64_t kAddress = 0x5152535455565758;
    const std::string abs = "CDataBase: Read-In constructor ", rel_ = "CRelDataBase: Read-In constructor ";
    const std::vector<Cut> stream = {{24, abs + "could not read context data."}, {37, abs + "could not access data."}};
    const std::vector<Cut> buffer = {{37, abs + "invalid input buffer size."}};
    const std::vector<Cut> relStream = {{2, rel_ + "could not read context data."},
                                        {15, rel_ + "could not read data."}};
    const std::vector<Cut> relBuffer = {{10, rel_ + "invalid input buffer size."}, {15, rel_ + "could not read data."}};
    table.add(
        "ReadData", [] { return packet<CReadData>(core(), kAddress, CData(kFiveBytes, 5)); },
        "32 25" + (kCore + access), stream, buffer);
    table.add(
        "WriteData", [] { return packet<CWriteData>(core(), kAddress, CData(kFiveBytes, 5)); },
        "33 25" + (kCore + access), stream, buffer);
    table.add(
        "RelReadData", [] { return packet<CRelReadData>(rel(), kAddress, CData(kFiveBytes, 5)); },
        "22 0f" + (kRel + access), relStream, relBuffer);
    table.add(
        "RelWriteData", [] { return packet<CRelWriteData>(rel(), kAddress, CData(kFiveBytes, 5)); },
        "23 0f" + (kRel + access), relStream, relBuffer);
}

void addCounters(Table& table) {
    const std::string id = "54 53 52 51";
    const std::string value = "68 67 66 65 64 63 62 61", index = "78 77 76 75 74 73 72 71",
                      second = "88 87 86 85 84 83 82 81";
    constexpr std::uint64_t kValue = 0x6162636465666768, kIndex = 0x7172737475767778, kSecond = 0x8182838485868788;
    static const TCounterIdx_t kIndices[] = {kIndex, kSecond};
    static const std::uint8_t kThree[] = {0x61, 0x62, 0x63}, kOther[] = {0x71, 0x72, 0x73};

    for (const bool relative : {false, true}) {
        const std::string prefix = relative ? "CRel" : "C", name = relative ? "Rel" : "";
        const std::string context = relative ? kRel : kCore;
        const unsigned size = relative ? 2 : 24;
        const std::string base = prefix + "CounterBase: Read-In constructor ";
        const std::vector<Cut> stream = {{size, base + "could not read context data!"},
                                         {size + 4, base + "could not read counter id!"}};
        const std::vector<Cut> buffer = {{size + 4, base + "invalid buffer size supplied!"}};
        const auto with = [](std::vector<Cut> cuts, std::vector<Cut> more) {
            cuts.insert(cuts.end(), more.begin(), more.end());
            return cuts;
        };
        const auto add = [&](const char* kind, CPacket* (*make)(), CPacket* (*makeRel)(), const char* code,
                             const char* relCode, const std::string& payload, std::vector<Cut> moreStream,
                             std::vector<Cut> moreBuffer) {
            table.add(name + kind, relative ? makeRel : make, (relative ? relCode : code) + context + id + payload,
                      with(stream, std::move(moreStream)), with(buffer, std::move(moreBuffer)));
        };
        add("CounterUndefine", coreId<CCounterUndefine>, relId<CRelCounterUndefine>, "52 1c", "42 06", "", {}, {});

        const std::string define = prefix + "CounterDefineBase: Read-In constructor could not read ";
        const std::string dimension = define + "counter dimension and definition!";
        const std::vector<Cut> defineStream = {
            {size + 5, dimension},
            {size + 6, ""},
            {size + 9, relative ? dimension : define + "subsequent counter definition!"}};
        // In memory a cut definition counts as none.
        const std::vector<Cut> defineBuffer = {{size + 5, dimension}, {size + 9, ""}};
        add(
            "CounterDefine", [] { return packet<CCounterDefine>(core(), 0x51525354U, std::uint8_t{0x61}, "ab"); },
            [] { return packet<CRelCounterDefine>(rel(), 0x51525354U, std::uint8_t{0x61}, "ab"); }, "50 1d", "40 07",
            "61 7e 02 61 62", defineStream, defineBuffer);
        add(
            "CounterDefineUnit",
            [] { return packet<CCounterDefineUnit>(core(), 0x51525354U, std::uint8_t{0x61}, "ab"); },
            [] { return packet<CRelCounterDefineUnit>(rel(), 0x51525354U, std::uint8_t{0x61}, "ab"); }, "51 1d",
            "41 07", "61 7e 02 61 62", defineStream, defineBuffer);

        const std::string valueText = prefix + "CounterValueBase: Read-In Constructor could not read counter value.";
        const std::vector<Cut> valueStream = {{size + 12, valueText}};
        const std::vector<Cut> valueBuffer = {
            {size + 12, relative ? valueText : "CCounterValueBase: Read-In Constructor copuld not read from buffer."}};
        const auto indexText = [&](const char* kind) {
            return prefix + kind + ": Read-In Constructor could not read counter index.";
        };
        add(
            "CounterValue", [] { return packet<CCounterValue>(core(), 0x51525354U, TCounter_t(kValue)); },
            [] { return packet<CRelCounterValue>(rel(), 0x51525354U, TCounter_t(kValue)); }, "54 24", "44 0e", value,
            valueStream, valueBuffer);
        add(
            "CounterValueDim1",
            [] { return packet<CCounterValueDim1>(core(), 0x51525354U, TCounter_t(kValue), TCounterIdx_t(kIndex)); },
            [] { return packet<CRelCounterValueDim1>(rel(), 0x51525354U, TCounter_t(kValue), TCounterIdx_t(kIndex)); },
            "55 2c", "45 16", value + index, with(valueStream, {{size + 20, indexText("CounterValueDim1")}}),
            with(valueBuffer, {{size + 20, indexText("CounterValueDim1")}}));
        add(
            "CounterValueDim2",
            [] {
                return packet<CCounterValueDim2>(core(), 0x51525354U, TCounter_t(kValue), TCounterIdx_t(kIndex),
                                                 TCounterIdx_t(kSecond));
            },
            [] {
                return packet<CRelCounterValueDim2>(rel(), 0x51525354U, TCounter_t(kValue), TCounterIdx_t(kIndex),
                                                    TCounterIdx_t(kSecond));
            },
            "56 34", "46 1e", value + index + second, with(valueStream, {{size + 28, indexText("CounterValueDim2")}}),
            with(valueBuffer, {{size + 28, indexText("CounterValueDim2")}}));
        add(
            "CounterValueDimN",
            [] {
                return packet<CCounterValueDimN>(core(), 0x51525354U, TCounter_t(kValue),
                                                 CCounterIndexDimN(2, kIndices));
            },
            [] {
                return packet<CRelCounterValueDimN>(rel(), 0x51525354U, TCounter_t(kValue),
                                                    CCounterIndexDimN(2, kIndices));
            },
            "57 34", "47 1e", value + index + second, with(valueStream, {{size + 28, indexText("CounterValueDimN")}}),
            with(valueBuffer,
                 {{size + 28, relative ? indexText("CounterValueDimN")
                                       : "CCounterValueDimN: Read-In Constructor could not read index value"}}));
        const std::string var = relative
                                    ? "CRelCounterValueVar: Read-In Constructor could not read variable counter value "
                                      "and index from stream"
                                    : "CCounterValueVar: Read-In Constructor could not read variable length counter "
                                      "data from stream";
        add(
            "CounterValueVarOfThreeBytes",
            [] {
                const CCounterValueVarPayload payload(TVarCounter_t(kThree, 3), TVarCounter_t(kOther, 3));
                return packet<CCounterValueVar>(core(), 0x51525354U, payload);
            },
            [] {
                const CCounterValueVarPayload payload(TVarCounter_t(kThree, 3), TVarCounter_t(kOther, 3));
                return packet<CRelCounterValueVar>(rel(), 0x51525354U, payload);
            },
            "53 22", "43 0c", "61 62 63 71 72 73", {{size + 10, var}}, {{size + 10, var}});
        add(
            "CounterValueVarOfTwoBytes",
            [] {
                const CCounterValueVarPayload payload(std::uint16_t{0x6162}, std::uint16_t{0x7172});
                return packet<CCounterValueVar>(core(), 0x51525354U, payload);
            },
            [] {
                const CCounterValueVarPayload payload(std::uint16_t{0x6162}, std::uint16_t{0x7172});
                return packet<CRelCounterValueVar>(rel(), 0x51525354U, payload);
            },
            "53 20", "43 0a", "62 61 72 71", {{size + 8, var}}, {{size + 8, var}});
    }
}

void addBus(Table& table) {
    //                         Tick                    HWCtx/Chan. Master
    const std::string context = "08 07 06 05 04 03 02 01 14 13 12 11 24 23 22 21";
    const auto bus = [] { return CBusContext(0x0102030405060708, 0x11121314, 0x21222324); };
    const auto system = [] { return CSystemContext(0x0102030405060708, 0x11121314, 0x21222324); };
    static const auto kBus = bus;
    static const auto kSystem = system;
    static const CData kData(std::uint16_t{0x7172});
    static const unsigned char kLines[] = {0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68,
                                           0x71, 0x72, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78};
    const std::string in = ": Read-In Constructor ";
    const auto could = [&in](const std::string& kind, const char* what) {
        return "C" + kind + in + "could not read " + what;
    };

    for (const std::string kind : {"BusSync", "SystemSync"}) {
        const std::vector<Cut> cuts = {{16, could(kind, "absolute context from stream")}};
        table.add(
            kind,
            kind == "BusSync" ? +[] { return packet<CBusSync>(kBus()); }
                              : +[] { return packet<CSystemSync>(kSystem()); },
            (kind == "BusSync" ? "72 10" : "73 10") + context, cuts, cuts);
    }

    const std::string size = "invalid buffer size supplied", space = "invalid buffer space supplied.";
    table.add("BusData", [] { return packet<CBusData>(kBus(), CBusDataSignals(std::uint8_t{0xF2}), kData); },
              "d0 13" + context + "f2 72 71",
              {{16, could("BusData", "context from stream")}, {19, could("BusData", "data from stream")}},
              {{17, "CBusData" + in + size}, {19, could("BusData", "data from stream")}});
    table.add(
        "RelBusData",
        [] { return packet<CRelBusData>(CRelBusContext(0x41), CBusDataSignals(std::uint8_t{0xF2}), kData); },
        "c0 04 41 f2 72 71",
        {{1, could("RelBusData", "absolute context from stream")}, {4, could("RelBusData", "payload from stream")}},
        {{2, "CRelBusData" + in + space}, {4, could("RelBusData", "payload from stream")}});
    const std::string address = "58 57 56 55 54 53 52 51";
    table.add("BusAddrData",
              [] { return packet<CBusAddrData>(kBus(), CBusDataSignals(BusAccWrite), 0x5152535455565758U, kData); },
              "d1 1b" + context + "02" + address + "72 71",
              {{16, could("BusAddrData", "context from stream")}, {27, could("BusAddrData", "data from stream")}},
              {{25, "CBusAddrData" + in + size}, {27, could("BusAddrData", "data from stream")}});
    table.add("RelBusAddrData",
              [] {
                  return packet<CRelBusAddrData>(CRelBusContext(0x41), CBusDataSignals(BusAccRead), 0x5152535455565758U,
                                                 kData);
              },
              "c1 0c 41 01" + address + "72 71",
              {{1, could("RelBusAddrData", "absolute context from stream")},
               {12, could("RelBusAddrData", "payload from stream")}},
              {{10, "CRelBusAddrData" + in + space}, {12, could("RelBusAddrData", "payload from stream")}});

    const std::string id = "54 53 52 51";
    const auto define = [&](const std::string& kind, unsigned before) {
        const std::string payload = could(kind, "payload from stream");
        return std::vector<Cut>{{before, could(kind, "bus context from stream")},
                                {before + 6, payload},
                                {before + 7, ""},
                                {before + 10, payload}};
    };
    table.add(
        "SignalDefine", [] { return packet<CSignalDefine>(kBus(), 0x51525354U, CSignalMask(16, kLines), "ab"); },
        "d2 16" + context + id + "61 62 7e 02 61 62", define("SignalDefine", 16), define("SignalDefine", 16));
    table.add(
        "RelSignalDefine",
        [] { return packet<CRelSignalDefine>(CRelBusContext(0x41), 0x51525354U, CSignalMask(16, kLines), "ab"); },
        "c2 07 41" + id + "61 62 7e 02 61 62", define("RelSignalDefine", 1), define("RelSignalDefine", 1));
    table.add("SignalUndefine", [] { return packet<CSignalUndefine>(kBus(), 0x51525354U); }, "d3 14" + context + id,
              {{16, could("SignalUndefine", "bus context from stream")},
               {20, could("SignalUndefine", "payload from stream")}},
              {{20, "CSignalUndefine" + in + "called with invalid buffer size"}});
    table.add("RelSignalUndefine", [] { return packet<CRelSignalUndefine>(CRelBusContext(0x41), 0x51525354U); },
              "c3 05 41" + id,
              {{1, could("RelSignalUndefine", "bus context from stream")},
               {5, could("RelSignalUndefine", "payload from stream")}},
              {{5, "CRelSignalUndefine" + in + "called with invalid buffer size"}});
    const std::string lines = "61 62 63 64 65 66 67 68  71 72 73 74 75 76 77 78";
    table.add("Signal", [] { return packet<CSignal>(kBus(), CSignalMask(64, kLines), CSignalMask(64, kLines + 8)); },
              "d4 20" + context + lines,
              {{16, could("Signal", "absolute context from stream")}, {32, could("Signal", "payload from stream")}},
              {{16, "CSignal" + in + "called with invalid buffer size"}, {32, could("Signal", "payload from stream")}});
    table.add(
        "RelSignal",
        [] { return packet<CRelSignal>(CRelBusContext(0x41), CSignalMask(64, kLines), CSignalMask(64, kLines + 8)); },
        "c4 11 41" + lines,
        {{1, could("RelSignal", "bus context from stream")}, {17, could("RelSignal", "payload from stream")}},
        {{1, "CRelSignal" + in + "called with invalid buffer size."}, {17, could("RelSignal", "payload from stream")}});
    table.add(
        "SystemData", [] { return packet<CSystemData>(kSystem(), kData); }, "d5 12" + context + "72 71",
        {{16, could("SystemData", "absolute context from stream")}, {18, could("SystemData", "payload from stream.")}},
        {{16, "CSystemData" + in + "called with invalid buffer size."},
         {18, could("SystemData", "payload from stream.")}});
    table.add("RelSystemData", [] { return packet<CRelSystemData>(CRelSystemContext(0x41), kData); }, "c5 03 41 72 71",
              {{1, could("RelSystemData", "absolute context from stream")},
               {3, could("RelSystemData", "payload from stream")}},
              {{1, "CRelSystemData" + in + "called with invalid buffer size."},
               {3, could("RelSystemData", "payload from stream")}});
}

void addEvents(Table& table) {
    const std::string id = "54 53 52 51", type = "00 00 00 20", name = "7e 02 61 62";
    const auto both = [&table](const char* kind, CPacket* (*make)(), const std::string& wire,
                               const std::vector<Cut>& cuts) { table.add(kind, make, wire, cuts, cuts); };
    const auto event = [](const char* kind) {
        return std::string("C") + kind + ": Read-In Constructor could not read event data.";
    };
    both("EventDefine", [] { return packet<CEventDefine>(0x51525354U, Watchpoint, "ab"); }, "74 08" + id + type + name,
         {{8, event("EventDefine")},
          {9, ""},
          {12, "CEventDefine: Read-In constructor could not read valid event definition string."}});
    both("EventUndefine", [] { return packet<CEventUndefine>(0x51525354U); }, "75 04" + id,
         {{4, event("EventUndefine")}});
    both("Event", [] { return packet<CEvent>(core(), 0x51525354U, CData(std::uint16_t{0x6162})); },
         "76 1e" + (kCore + id) + "62 61",
         {{24, "CEvent: Read-In Constructor could not read context data."}, {30, event("Event")}});

    const std::string base = "CStateMachineBase: Read-In constructor could not packet data!";
    const auto state = [](const std::string& kind) {
        return "C" + kind + ": Read-In constructor could not read valid state machine definition string.";
    };
    const std::string two = "64 63 62 61", three = "74 73 72 71", four = "84 83 82 81";
    both("StateMachineDefine", [] { return packet<CStateMachineDefine>(0x51525354U, "ab"); }, "d6 04" + id + name,
         {{4, base}, {5, ""}, {8, state("StateMachineDefine")}});
    both("StateMachineInstanceDefine",
         [] { return packet<CStateMachineInstanceDefine>(0x51525354U, 0x61626364U, "ab"); }, "d7 08" + id + two + name,
         {{4, base}, {8, state("StateMachineInstanceDefine")}, {9, ""}, {12, state("StateMachineInstanceDefine")}});
    both("StateDefine", [] { return packet<CStateDefine>(0x51525354U, 0x61626364U, "ab"); }, "d8 08" + id + two + name,
         {{4, base}, {8, state("StateDefine")}, {9, ""}, {12, state("StateDefine")}});
    both("TransitionDefine",
         [] { return packet<CTransitionDefine>(0x51525354U, 0x61626364U, 0x71727374U, 0x81828384U, "ab"); },
         "d9 10" + id + two + three + four + name,
         {{4, base}, {16, state("TransitionDefine")}, {17, ""}, {20, state("TransitionDefine")}});
    both("StateMachineUndefine", [] { return packet<CStateMachineUndefine>(0x51525354U); }, "da 04" + id, {{4, base}});
    const std::string tick = "98 97 96 95 94 93 92 91";
    both("InitialState",
         [] { return packet<CInitialState>(0x51525354U, 0x61626364U, 0x71727374U, 0x81828384U, 0x9192939495969798U); },
         "db 18" + id + two + three + four + tick, {{4, base}, {24, state("InitialState")}});
    both("Transition",
         [] {
             return packet<CTransition>(0x51525354U, 0x61626364U, 0x71727374U, 0x81828384U, 0x9192939495969798U,
                                        CData(std::uint8_t{0xA1}));
         },
         "dc 19" + id + two + three + four + tick + "a1", {{4, base}, {25, state("Transition")}});
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

} // namespace Quorvex::test
