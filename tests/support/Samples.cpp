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

} // namespace

const std::vector<Sample>& samples() {
    static const std::vector<Sample> rows = [] {
        Table table;
        addInstructions(table);
        addTraceControl(table);
        addStrings(table);
        addObjects(table);
        addDefinitions(table);
        return table.rows;
    }();
    return rows;
}

} // namespace Quorvex::test
