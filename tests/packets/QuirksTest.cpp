// Behaviour of single kinds that the common table does not show. Where it looks odd it is part of the format, and the
// test's name says what it is.

#include "quorvex/packets/PacketKinds.h"
#include "tests/support/Bytes.h"
#include "tests/support/RandomPackets.h"

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

/// A stream that fails as a broken device does, after some bytes.
class BrokenStream : public std::ostream {
public:
    explicit BrokenStream(int room) : std::ostream(&m_buffer) {
        m_buffer.left = room;
        exceptions(std::ios::badbit);
    }

private:
    struct Buffer : std::streambuf {
        int left = 0;
        int_type overflow(int_type c) override {
            return left-- > 0 ? traits_type::not_eof(c) : throw std::runtime_error("gone");
        }
    } m_buffer;
};

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

TEST(TimestampPacket, GrowsWithEachFieldThatIsSet) {
    CTimestamp packet(5);
    packet.HWCtx(2);
    EXPECT_EQ(packet.Length(), 12U);
    EXPECT_EQ(written(packet), "77 0c 05 00 00 00 00 00 00 00 02 00 00 00");
    packet.Frequency(3);
    EXPECT_EQ(packet.GetPayloadLength(), CTimestamp::Len_TS_HWCtx_Freq);
    const std::string wire = "77 10 01 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00";
    EXPECT_EQ(packet.read(bytes(wire).data(), 18), 18U);
    EXPECT_FALSE(packet.is_HWCtx_valid());
    EXPECT_EQ(written(packet), wire);
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
    packet.SrcFuncId(3);
    EXPECT_EQ(written(packet), "83 0a 01 02 03 00 00 00 07 00 00 00");
    packet.SrcFuncId(0xFFFFFFFF);
    EXPECT_EQ(packet.Length(), 6U);
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
    const struct {
        unsigned size;
        std::string part, inMemory = part;
    } cuts[] = {{1, "header data"}, {25, "core context"}, {29, "function identifier", "core context"}};
    for (const auto& [size, part, inMemory] : cuts) {
        std::istringstream in(wire.substr(0, size));
        EXPECT_FALSE(packet.read(in) || packet.read(wire.data(), size) || packet.write(buffer, size));
        EXPECT_EQ(takeLog(), failed("Failed to read " + part + " from stream") +
                                 failed("Failed to read " + inMemory + " from buffer") +
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
    const std::string type = "CTypeDefine: Read-In Constructor called with invalid header data";
    const struct {
        std::string (*read)(std::uint8_t length, unsigned size);
        std::uint8_t length;
        unsigned size;
        std::string said;
    } rows[] = {
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
        {readIn<CTransition>, 24, 30, "24"},
        // A state without a name; an event with 64 bytes of data.
        {readIn<CStateDefine>, 8, 10, "8"},
        {readIn<CEvent>, 92, 92, "92"},
        {readIn<CCounterValueDimN>, 41, 60, invalid("CCounterValueDimN")},
        {readIn<CRelCounterValueDimN>, 14 + 28 * 8, 240, invalid("CRelCounterValueDimN")},
        {readIn<CCounterValueVar>, 31, 60, invalid("CCounterValueVar")},
        {readIn<CCounterValueVar>, 28, 28, "28"}, // a value of no width
        {readIn<CCounterValueVar>, 254, 254, "254"},
        {readIn<CCounterValue>, 36, 27, "CCounterBase: Read-In constructor invalid buffer size supplied!"},
        {readIn<CCounterValue>, 28, 40, invalid("CCounterValueBase")},
    };
    for (const auto& [read, length, size, said] : rows)
        EXPECT_EQ(read(length, size), said) << unsigned{length} << " of " << size;
    takeLog();
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
    CWriteData access;
    access.AccData() = CData(std::uint64_t{1}, 64);
    EXPECT_EQ(access.Length(), 96U);
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

TEST(Counters, AreNotWrittenWhenTheyDoNotFitAPacket) {
    const std::uint8_t raw[200] = {};
    CCounterValueVar packet(kContext, 1, CCounterValueVarPayload(TVarCounter_t(raw, 200), TVarCounter_t(raw, 200)));
    char buffer[600];
    EXPECT_EQ(packet.write(buffer, sizeof buffer), 0U);
    std::ostringstream out;
    EXPECT_FALSE(packet.write(out));
    EXPECT_EQ(out.str(), "");
}

TEST(BrokenStreams, AreAFailedWriteAndAMessage) {
    CExecInsn insn(kContext);
    CVariableWrite variable(kContext, 1, CData(std::uint32_t{5}));
    CWriteData data(kContext, 1, CData(std::uint32_t{5}));
    const struct {
        CPacket& packet;
        int left;
        const char* log;
    } rows[] = {
        {insn, 0, "CPacketHeader::write: Catched exception \"gone\"\n"},
        {variable, 2 + 24 + 4, "CVariableAccBasePayload::write: Catched exception while writing payload!\n"},
        {data, 2 + 24, "CDataBasePayload: Catched exception while writing payload: \"gone\"\n"},
    };
    for (const auto& [packet, left, log] : rows) {
        BrokenStream out(left);
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
