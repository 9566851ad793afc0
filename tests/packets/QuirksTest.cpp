// Behaviour of single kinds that the common table does not show. Where it looks odd it is part of the format, and the
// test's name says what it is.

#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"
#include "tests/support/Doubles.h"
#include "tests/support/OddStream.h"

#include <gtest/gtest.h>

#include <sstream>
#include <utility>
#include <vector>

namespace Quorvex::test {
namespace {

template <class P> std::string written(P&& packet) {
    return hex(wireOf(packet));
}

/// How many bytes of a payload a Read-In constructor takes, or why it does not.
template <class P, tagTCode code = P::kCode> std::string readIn(std::uint8_t length, unsigned size) {
    const ExactBlock block(std::string(size, '\x11'));
    unsigned consumed = 0;
    const std::string failure = thrownBy([&] { P(CPacketHeader(code, length), block.data(), size, consumed); });
    return failure.empty() ? std::to_string(consumed) : failure;
}

const CCoreContext kContext(1, 2, 3, 4);

TEST(Packets, HaveTheirFixedLevelsAndDefaultsThatMeanUnknown) {
    const std::string context = " ff ff ff ff ff ff ff ff 00 00 00 00 00 00 00 00 ff ff ff ff ff ff ff ff";
    EXPECT_EQ(written(CDirectBranch()), "12 20" + context + " ff ff ff ff ff ff ff ff");
    EXPECT_EQ(written(CHWExceptionEnter()), "15 1c" + context + " 00 00 00 00");
    EXPECT_EQ(written(CWriteData()), "33 20" + context + " ff ff ff ff ff ff ff ff");
    EXPECT_EQ(written(CLogMsg()), "78 09 ff ff ff ff ff ff ff ff 00");
    EXPECT_EQ(written(CErrorMsg(7, "x")), "78 09 07 00 00 00 00 00 00 00 c0 7e 01 78");
    EXPECT_EQ(written(CDebugMsg(7, "")), "78 09 07 00 00 00 00 00 00 00 40");
}

TEST(TraceEnabledPacket, ReadsTheShortFormsAndWritesThemBackWithAFullPayload) {
    const std::string rest = " ff ff ff ff ff ff ff ff 00 00 00 00";
    for (const auto& [wire, length, expected] :
         {std::tuple{"79 00", 2U, "79 00 00 00 00 00" + rest},
          {"79 04 01 02 03 04", 6U, "79 04 01 02 03 04" + rest},
          {"79 0c 01 02 03 04 11 12 13 14 15 16 17 18", 14U,
           std::string("79 0c 01 02 03 04 11 12 13 14 15 16 17 18 00 00 00 00")}}) {
        CTraceEnabled packet(5, Expanded, true);
        const ExactBlock block(bytes(wire));
        EXPECT_EQ(packet.read(block.data(), block.size()), length);
        EXPECT_EQ(written(packet), expected);
        std::istringstream in(bytes(wire));
        CTraceEnabled fromStream;
        EXPECT_TRUE(fromStream.read(in));
        EXPECT_EQ(written(fromStream), expected);
    }
}

TEST(TraceEnabledPacket, KeepsTwoBitsOfTheExpansionAndTheFlagApart) {
    CTraceEnabled packet(1000, TraceExpansion(7), false);
    EXPECT_EQ(packet.FrameConfig().word(), 3U);
    packet.ExceptionFrames(true);
    EXPECT_EQ(packet.Expansion(), MixExpanded);
    packet.Expansion(NotExpanded);
    EXPECT_TRUE(packet.ExceptionFrames());
    EXPECT_EQ(packet.FrameConfig().word(), 5U);
}

TEST(FillPacket, TakesAnyBytesAndWrites80) {
    CFill packet;
    EXPECT_EQ(packet.read("\x7d\x02xy", 4), 4U);
    EXPECT_EQ(written(packet), "7d 02 80 80");
    packet.SetLength(0);
    EXPECT_EQ(written(packet), "7d 00");
}

TEST(Messages, ReportATextThatCannotBeMoved) {
    CErrorMsg message(7, "text");
    char buffer[12];
    EXPECT_EQ(message.write(buffer, 12), 0U);
    EXPECT_EQ(takeLog(), "CMessage: Write of followup message failed!\n");
    const std::string cut = bytes("78 09 01 02 03 04 05 06 07 08 09 7e 05 61");
    EXPECT_EQ(message.read(cut.data(), 14), 0U);
    EXPECT_EQ(takeLog(), "CMessage: Read of followup message failed!\n");
    EXPECT_EQ(message.message().view(), "text");
}

TEST(FunctionEnterPacket, ChoosesItsFormByTheSource) {
    CRelFunctionLeave packet(1, 2, 7);
    EXPECT_FALSE(packet.SrcFuncIdIsValid());
    EXPECT_EQ(CFunctionEnter(kContext, 0xFFFFFFFF, 7).Length(), 28U);
    // A trace may hold the long form with an unknown source: it stays as it was.
    const std::string wire = "83 0a 01 02 ff ff ff ff 07 00 00 00";
    EXPECT_EQ(packet.read(bytes(wire).data(), 12), 12U);
    EXPECT_EQ(written(packet), wire);
}

TEST(FunctionEnterPacket, LogsWhichStepOfAPlainReadOrWriteFailed) {
    CFunctionEnter packet(kContext, 7);
    const std::string wire = bytes(written(packet));
    char buffer[64];
    const auto failed = [](const std::string& what) { return "FunctionEnter: " + what + ".\n"; };
    const std::pair<unsigned, std::string> cuts[] = {
        {1, "header data"}, {25, "core context"}, {26, "function identifier"}, {29, "function identifier"}};
    for (const auto& [size, part] : cuts) {
        std::istringstream in(wire.substr(0, size));
        EXPECT_FALSE(packet.read(in) || packet.read(wire.data(), size) || packet.write(buffer, size));
        EXPECT_EQ(takeLog(), failed("Failed to read " + part + " from stream") +
                                 failed("Failed to read " + part + " from buffer") +
                                 failed("Failed to write " + part + " to buffer"));
    }
    std::ostringstream full;
    full.setstate(std::ios::badbit);
    std::string odd = wire;
    odd[1] = 30;
    std::istringstream invalid(odd);
    EXPECT_FALSE(packet.write(full) || packet.read(invalid) || packet.read(odd.data(), 30));
    EXPECT_EQ(takeLog(), failed("Failed to write header data to stream") +
                             failed("Invalid header data read from stream") +
                             failed("Invalid header data read from buffer"));
    EXPECT_EQ(written(packet), hex(wire));
}

TEST(ReadIn, TakesThePayloadThatTheHeaderAnnouncesOrSaysWhyNot) {
    const auto invalid = [](const char* kind, const char* end = " called with invalid header data") {
        return std::string(kind) + ": Read-In Constructor" + end;
    };
    const std::string function = "CFunctionBase: Read-In constructor invalid header data supplied!";
    const std::string stateMachine = "CStateMachineBase: Read-In constructor could not packet data!";
    const std::string type = "CTypeDefine: Read-In Constructor called with invalid header data";
    const std::tuple<std::string (*)(std::uint8_t, unsigned), std::uint8_t, unsigned, std::string> rows[] = {
        {readIn<CExecInsn, CharString>, 99, 24, "24"}, // neither code nor length is looked at
        {readIn<CTraceEnabled>, 8, 8, "CTraceEnabled: Read-In constructor could no read payload data."},
        {readIn<CTimestamp>, 10, 10, "CTimestamp: Read-In Constructor coud not read timestamp from stream"},
        {readIn<CTraceDisabled>, 3, 3, "0"}, // a length is ignored
        {readIn<CEndOfTrace>, 200, 0, "0"},
        {readIn<CMessage>, 10, 9, "CMessage: Read-In constructor was supplied invalid header data."},
        {readIn<CFunctionUndefine>, 28, 40, "28"},
        {readIn<CFunctionUndefine>, 27, 40, function},
        {readIn<CFunctionUndefine>, 29, 40, function},
        {readIn<CFunctionUndefine, ProcessUndefine>, 28, 40, function},
        {readIn<CTypeDefine>, 28, 40, type},
        {readIn<CTypeDefine>, 30, 40, type},
        {readIn<CVariableRead>, 40, 40, "40"},
        {readIn<CVariableRead>, 20, 40, "CVariableAccBase: Read-In constructor invalid header data supplied!"},
        // In the absolute form the buffer must have all that the header announces.
        {readIn<CReadData>, 41, 40, "CDataBase: Read-In constructor invalid input buffer size."},
        {readIn<CRelReadData>, 15, 14, "CRelDataBase: Read-In constructor could not read data."},
        // 65 bytes of data.
        {readIn<CReadData>, 97, 97, "CDataBase: Read-In constructor could not read data."},
        // Smaller than a plain read takes; halves of an odd part; 120 bytes a mask.
        {readIn<CRelSignal>, 3, 3, "3"},
        {readIn<CRelSignal>, 4, 4, invalid("CRelSignal", " could not read payload from stream")},
        {readIn<CRelSignal>, 241, 241, invalid("CRelSignal", " could not read payload from stream")},
        // Without data.
        {readIn<CRelBusAddrData>, 10, 10, "10"},
        {readIn<CRelBusAddrData>, 9, 10, invalid("CRelBusAddrData")},
        {readIn<CRelSystemData>, 1, 1, "1"},
        {readIn<CBusSync>, 17, 20, invalid("CBusSync")},
        {readIn<CTransition>, 23, 30, "Transition payload length in header is less than fixed payload size."},
        {readIn<CTransition, InitialState>, 24, 30, stateMachine},
        {readIn<CTransition>, 24, 30, "24"},
        {readIn<CStateDefine>, 9, 10, stateMachine},
        // A state without a name; an event with 64 bytes of data.
        {readIn<CStateDefine>, 8, 10, "8"},
        {readIn<CEvent>, 92, 92, "92"},
        {readIn<CCounterValueDimN>, 35, 60, invalid("CCounterValueDimN")},
        {readIn<CCounterValueDimN>, 41, 60, invalid("CCounterValueDimN", " read invalid counter index data.")},
        {readIn<CRelCounterValueDimN>, 14 + 28 * 8, 240,
         invalid("CRelCounterValueDimN", " read invalid counter index data.")},
        {readIn<CCounterValueVar>, 31, 60, "Len2Size: supplied size must be multiples of two!"},
        {readIn<CRelCounterValueVar>, 5, 60, invalid("CRelCounterValueVar")},
        {readIn<CRelCounterValueVar>, 6 + 228, 240,
         invalid("CRelCounterValueVar", " could not read variable counter value and index from stream")},
        {readIn<CCounterValueVar>, 28, 28, "28"}, // a value of no width
        {readIn<CCounterValueVar>, 254, 254, "254"},
        {readIn<CCounterValue>, 36, 27, "CCounterBase: Read-In constructor invalid buffer size supplied!"},
        {readIn<CCounterValue>, 28, 40, invalid("CCounterValueBase")},
    };
    for (const auto& [read, length, size, said] : rows)
        EXPECT_EQ(read(length, size), said) << unsigned{length} << " of " << size;
}

TEST(ReadIn, TellsANullBufferFromOneThatIsTooSmall) {
    const auto said = [](const auto& packet, unsigned size) {
        using P = std::decay_t<decltype(packet)>;
        unsigned consumed = 7;
        const std::string text = thrownBy([&] { P(CPacketHeader(P::kCode, P::Len()), nullptr, size, consumed); });
        EXPECT_EQ(consumed, 0U);
        return text;
    };
    EXPECT_EQ(said(CRelExecInsn(), 2), "CRelExecInsn: Read-In Constructor could not read context data.");
    EXPECT_EQ(said(CSync(), 24), "CSync: Read-In Constructor could not read sync data from stream.");
    EXPECT_EQ(said(CSync(), 23), "CSync: Read-In Constructor invalid buffer size supplied");
    EXPECT_EQ(said(CRelDirectBranch(), 10),
              "CRelBranchBase: Read-In constructor could not read context from input buffer.");
    EXPECT_EQ(said(CHWExceptionEnter(), 28), "CHWExceptionBase: Read-In Constructor could not read context data.");
    EXPECT_EQ(said(CFunctionUndefine(), 28), "CFunctionBase: Read-In constructor could not read context data!");
    EXPECT_EQ(said(CSignal(), 16), "CSignal: Read-In Constructor could not read bus context from stream");
    EXPECT_EQ(said(CTraceDisabled(), 5), "");
}

TEST(Lengths, CountTheDataButNotTheName) {
    CFunctionDefine define(kContext, 1, std::string(300, 'x').c_str());
    EXPECT_EQ(define.Length(), 28U);
    EXPECT_EQ(define.StreamSize(), 30U + 304);
    CVariableWrite write(kContext, 1, CData(std::uint32_t{5}));
    EXPECT_EQ(write.Length(), 32U);
    write.VarData() = CData(std::uint64_t{0}, 64);
    EXPECT_EQ(write.Length(), 92U);
    EXPECT_EQ(write.VarLen(), 64U);
    const std::string tooLong = bytes("b5 5d") + std::string(93, '\0');
    EXPECT_EQ(write.read(tooLong.data(), 95), 0U) << "65 bytes of data";
    EXPECT_EQ(write.VarLen(), 64U);
}

/// What a step makes of a packet, as the header by itself tells it.
template <class P> std::string headerAfter(void (*change)(P&), P packet = P()) {
    change(packet);
    const std::string wire = written(packet);
    P other = packet;
    other.StreamSize();
    CPacketHeader header(other);
    char raw[2];
    EXPECT_EQ(header.write(raw, 2), 2U);
    EXPECT_EQ(packet.Length(), header.Length()) << wire;
    EXPECT_EQ(wire.substr(0, 5), hex(std::string(raw, 2)));
    return hex(std::string(raw, 2));
}

TEST(Lengths, AreInTheHeaderAfterEachSetter) {
    static const TCounterIdx_t indices[3];
    static const CData data(std::uint64_t{1}, 5);
    static const CSignalMask mask("101010101");
    EXPECT_EQ(headerAfter<CTimestamp>([](auto& p) { p.HWCtx(2); }), "77 0c");
    EXPECT_EQ(headerAfter<CTimestamp>([](auto& p) { p.Frequency(2); }), "77 10");
    EXPECT_EQ(headerAfter<CFunctionEnter>([](auto& p) { p.SrcFuncId(2); }), "92 20");
    EXPECT_EQ(headerAfter<CRelFunctionLeave>([](auto& p) { p.SrcFuncId(~0U); }, {1, 2, 3, 4}), "83 06");
    EXPECT_EQ(headerAfter<CVariableRead>([](auto& p) { p.VarData(data); }), "b4 21");
    EXPECT_EQ(headerAfter<CRelWriteData>([](auto& p) { p.AccData(data); }), "23 0f");
    EXPECT_EQ(headerAfter<CBusData>([](auto& p) { p.Data(data); }), "d0 16");
    EXPECT_EQ(headerAfter<CRelBusAddrData>([](auto& p) { p.Data(data); }), "c1 0f");
    EXPECT_EQ(headerAfter<CSystemData>([](auto& p) { p.Data(data); }), "d5 15");
    EXPECT_EQ(headerAfter<CSignal>([](auto& p) { p.SignalValue(mask); }), "d4 12");
    EXPECT_EQ(headerAfter<CRelSignal>([](auto& p) { p.SignalMask(mask); }), "c4 03");
    EXPECT_EQ(headerAfter<CSignalDefine>([](auto& p) { p.SignalMask(mask); }), "d2 16");
    EXPECT_EQ(headerAfter<CEvent>([](auto& p) { p.EvtData(data); }), "76 21");
    EXPECT_EQ(headerAfter<CTransition>([](auto& p) { p.EventData(data); }), "dc 1d");
    EXPECT_EQ(headerAfter<CCounterValueDimN>([](auto& p) { p.CntrIdx(3, indices); }), "57 3c");
    EXPECT_EQ(headerAfter<CRelCounterValueDimN>([](auto& p) { p = CCounterIndexDimN(2, indices); }), "47 1e");
    EXPECT_EQ(headerAfter<CRelCounterValueVar>([](auto& p) {
                  p.CntrVal(std::uint32_t{1});
                  p.CntrIdx(std::uint32_t{1});
              }),
              "43 0e");
    EXPECT_EQ(headerAfter<CFill>([](auto& p) { p.SetLength(4); }), "7d 04");
    EXPECT_EQ(headerAfter<CBusData>([](auto& p) { p.CBusDataPayload::read("\1\2\3", 3, 3); }), "d0 13");
    // Through a reference the header learns of it when the packet is written.
    EXPECT_EQ(headerAfter<CReadData>([](auto& p) {
                  p.AccData() = data;
                  EXPECT_EQ(p.Length(), 37U);
                  EXPECT_EQ(p.StreamSize(), 39U);
                  wireOf(p);
              }),
              "32 25");
}

TEST(Lengths, AreWrittenAsTheyAreWhereTheHeaderThatWasReadSaysOtherwise) {
    const std::string payload(24, '1');
    unsigned consumed = 0;
    CExecInsn insn(CPacketHeader(ExecInsn, 99), payload.data(), 24, consumed);
    EXPECT_TRUE(insn.Length() == 99 && insn.StreamSize() == 26);
    EXPECT_EQ(written(insn), hex("\x10\x18" + payload));
    CTraceDisabled disabled(CPacketHeader(TraceDisabled, 3), nullptr, 0, consumed);
    EXPECT_EQ(written(disabled), "7a 00");
}

TEST(SignalDefinePacket, LeavesItsNameOutOfABufferThatHasNoRoomForIt) {
    CRelSignalDefine packet(1, 2, CSignalMask("1"), "name");
    char buffer[14];
    EXPECT_EQ(packet.StreamSize(), 14U);
    for (const unsigned size : {14U, 13U, 8U, 7U}) {
        EXPECT_EQ(packet.write(buffer, size), size == 14 ? 14U : size < 8 ? 0U : 8U);
        unsigned alone = 0;
        EXPECT_EQ(packet.CSignalDefinePayload::write(buffer, size - 3, alone), size >= 8);
        EXPECT_EQ(alone, size == 14 ? 11U : size < 8 ? 0U : 5U);
    }
}

TEST(RelSignalPacket, IsReadFromNoBufferShorterThan18BytesThoughItMayBeSmaller) {
    const std::string small = bytes("c4 03 41 01 02") + std::string(13, '\x7a');
    CRelSignal packet;
    EXPECT_EQ(packet.read(small.data(), 5), 0U);
    EXPECT_EQ(packet.read(small.data(), 17), 0U);
    EXPECT_EQ(packet.read(small.data(), 18), 5U);
    EXPECT_EQ(written(packet), "c4 03 41 01 02");
}

TEST(BusDataSignals, ReplaceAndClearTheAccessAndKeepTheOtherBits) {
    EXPECT_TRUE(CBusDataSignals(BusSignals(4)).AccUnknown());
    CBusDataSignals signals(std::uint8_t{0xF4});
    EXPECT_TRUE(signals.SetSignal(BusAccReadWrite));
    EXPECT_EQ(signals.GetRawFlags(), 0xF7);
    EXPECT_TRUE(signals.AccRead() && signals.AccWrite() && !signals.AccUnknown());
    EXPECT_TRUE(signals.GetSignal(BusAccReadWrite) && !signals.GetSignal(BusAccRead));
    EXPECT_TRUE(signals.ClearSignal(BusAccRead)) << "whichever is named, both bits go";
    EXPECT_EQ(signals.GetRawFlags(), 0xF4);
    EXPECT_FALSE(signals.SetSignal(BusSignals(4)) || signals.ClearSignal(BusSignals(4)) ||
                 signals.GetSignal(BusSignals(4)));
}

TEST(EventTypes, AreTenAndAllInGroupZero) {
    EXPECT_STREQ(CEventTypeInfo::EventTypeToName(GeneralFormattedMessage), "GeneralFormattedMessage");
    EXPECT_STREQ(CEventTypeInfo::EventTypeToDescription(GeneralFormattedMessage), "General Formated Message");
    EXPECT_STREQ(CEventTypeInfo::EventTypeToDescription(EEventType(6)), "Hardware Stream Offset");
    unsigned valid = 0;
    for (const std::uint32_t type : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 0x20000000U, 0x40000000U, 0x60000000U}) {
        valid += CEventTypeInfo::EventTypeIsValid(EEventType(type));
        EXPECT_EQ(CEventTypeInfo::EventTypeToGroup(EEventType(type)), 0U);
    }
    EXPECT_EQ(valid, 10U);
    EXPECT_EQ(CEventTypeInfo::EventTypeToName(EEventType(8)), nullptr);
    EXPECT_EQ(CEventTypeInfo::EventTypeToGroup(EEventType(0x0E000001)), 0x0E000000U);
}

TEST(Counters, TakeTheNumberOfIndicesAndTheWidthFromTheLength) {
    TCounterIdx_t indices[28];
    for (unsigned i = 0; i < 28; ++i)
        indices[i] = TCounterIdx_t(std::uint64_t{i} + 1);
    CCounterValueDimN packet(kContext, 1, TCounter_t(1.5), CCounterIndexDimN(27, indices));
    EXPECT_EQ(packet.Length(), 252U);
    EXPECT_EQ(std::as_const(packet).CntrIdx(26).u64, 27U);
    packet = CCounterIndexDimN(2, indices);
    EXPECT_EQ(packet.Length(), 52U);
    EXPECT_EQ(packet.CntrIdx()[2].u64, 0U) << "those beyond the count are 0";
    const std::string tooMany =
        "CCounterIndexDimN: Requested counter dimension is larger than maximal allowed counter dimension.";
    EXPECT_EQ(thrownBy([&] { CCounterIndexDimN(28, indices); }), tooMany);
    EXPECT_EQ(thrownBy([&] { CCounterIndexDimN::Byte2Dim(224); }), tooMany);
    EXPECT_EQ(thrownBy([&] { packet.CntrIdx(std::uint8_t{2}); }),
              "CCounterIndexDimN: Requested index is larger or equal to the counter dimension.");
    EXPECT_EQ(CCounterIndexDimN::Byte2Dim(216), 27U);
    EXPECT_EQ(CCounterIndexDimN::Dim2Byte(3), 24U);
    EXPECT_EQ(thrownBy([] { CCounterValueVarPayload::Len2Size(3); }),
              "Len2Size: supplied size must be multiples of two!");
    EXPECT_EQ(CCounterValueVarPayload::Len2Size(8) + CCounterValueVarPayload::Size2Len(4), 12U);
}

TEST(Counters, AreNotWrittenWhenNoPacketCouldTellThem) {
    const std::uint8_t raw[255] = {};
    const auto wide = [&](unsigned width) {
        return width == 0 ? TVarCounter_t() : TVarCounter_t(raw, static_cast<std::uint8_t>(width));
    };
    for (const auto& [value, index] : {std::pair{3U, 5U}, {0U, 3U}, {112U, 113U}, {114U, 114U}, {255U, 255U}}) {
        const CCounterValueVarPayload payload(wide(value), wide(index));
        CCounterValueVar absolute(kContext, 1, payload);
        CRelCounterValueVar relative(CRelCoreContext(1, 2), 1, CCounterValueVarPayload(wide(113), wide(113)));
        EXPECT_EQ(relative.StreamSize(), 2 + 6 + 226U);
        relative = payload;
        for (CPacket* packet : std::initializer_list<CPacket*>{&absolute, &relative}) {
            const unsigned context = packet == &absolute ? 28 : 6;
            char buffer[600] = "x";
            EXPECT_EQ(packet->write(buffer, sizeof buffer), 0U);
            EXPECT_EQ(buffer[0], 'x');
            std::ostringstream out;
            EXPECT_FALSE(packet->write(out));
            EXPECT_EQ(out.str(), "");
            EXPECT_EQ(packet->Length(), context + value + index);
            EXPECT_EQ(packet->StreamSize(), 0U);

            // Not even a page that has little room is ended for them.
            MemorySink plainSink, sink{std::string(kPageSize - 10, 'x')};
            CTraceWriterPlain plain(plainSink);
            CTraceWriterPaged paged(sink);
            EXPECT_FALSE(plain.put(packet) || paged.put(packet));
            EXPECT_TRUE(plain.tellp() == 0 && paged.tellp() == kPageSize - 10);
        }
    }
}

TEST(Counters, AreReadWithATextThatTheirHeaderCountsAndWrittenWithout) {
    const std::string fields = "11 12 13 14 61", name = "7e 02 61 62", context = std::string(24 * 2, '2');
    const std::tuple<std::string, std::string, std::string> rows[] = {{"50 21", "50 1d", context + fields + name},
                                                                      {"41 0b", "41 07", "31 32" + fields + name},
                                                                      {"40 09", "40 07", "31 32" + fields + "7e 00"}};
    for (const auto& [counted, ours, payload] : rows) {
        const std::string wire = bytes(counted + payload), next = bytes("7e 01 63 7a 00");
        const bool named = payload.ends_with(name);
        const std::string expected = hex(bytes(ours + (named ? payload : payload.substr(0, payload.size() - 5))));
        const ReadBothWays read(wire);
        ASSERT_TRUE(read.fromBuffer && read.fromStream);
        const PacketPointer plain(CPacketFactory::getCPacket(codeOf(wire)));
        const PacketPointer fromStream(CPacketFactory::getCPacket(codeOf(wire)));
        EXPECT_EQ(plain->read((wire + next).data(), static_cast<unsigned>(wire.size() + 5)), wire.size());
        std::istringstream in(wire + next);
        EXPECT_TRUE(fromStream->read(in));
        EXPECT_EQ(in.tellg(), std::streamoff(wire.size())) << "what follows is another packet's";
        for (CPacket* packet : {read.fromBuffer.get(), read.fromStream.get(), plain.get(), fromStream.get()}) {
            EXPECT_EQ(written(*packet), expected);
            EXPECT_EQ(packet->StreamSize(), bytes(expected).size());
        }
        // The length must be that of one text.
        for (const int delta : {-1, 1}) {
            std::string wrong = wire + "\x7a";
            wrong[1] = static_cast<char>(wrong[1] + delta);
            const ReadBothWays refused(wrong);
            EXPECT_FALSE(refused.fromBuffer || refused.fromStream);
            EXPECT_EQ(plain->read(wrong.data(), static_cast<unsigned>(wrong.size())), 0U);
        }
        const ReadBothWays cut(wire.substr(0, wire.size() - 1));
        EXPECT_FALSE(cut.fromBuffer || cut.fromStream);
    }
}

TEST(BrokenStreams, AreAFailedWriteAndAMessage) {
    CExecInsn insn(kContext);
    CVariableWrite variable(kContext, 1, CData(std::uint32_t{5}));
    CWriteData data(kContext, 1, CData(std::uint32_t{5}));
    const std::tuple<CPacket&, int, std::string> rows[] = {
        {insn, 0, "CPacketHeader::write: Catched exception \"gone\"\n"},
        {variable, 2 + 24 + 4, "CVariableAccBasePayload::write: Catched exception while writing payload!\n"},
        {data, 2 + 24, "CDataBasePayload: Catched exception while writing payload: \"gone\"\n"},
    };
    for (const auto& [packet, left, log] : rows) {
        static int room;
        room = left;
        OddStream out([] { room-- > 0 ? void() : throw std::runtime_error("gone"); });
        EXPECT_FALSE(packet.write(out));
        EXPECT_EQ(takeLog(), log);
    }
}

TEST(Destroyed, PacketsReadAsInvalid) {
    // Read from outside, as a dangling pointer would: the compiler must not know what the memory was.
    std::vector<char> memory(sizeof(CExecInsn));
    char* volatile start = memory.data();
    auto* packet = new (memory.data()) CExecInsn(kContext);
    const auto offset = [&](void* part) { return static_cast<char*>(part) - memory.data(); };
    const auto header = offset(static_cast<CPacketHeader*>(packet));
    const auto context = offset(static_cast<CCoreContext*>(packet));
    packet->~CExecInsn();
    EXPECT_EQ(hex(std::string(start + header, 2)), "ff ff");
    EXPECT_EQ(std::string(start + context, 24), std::string(24, '\xff'));
}

} // namespace
} // namespace Quorvex::test
