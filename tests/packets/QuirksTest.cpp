// Behaviour of single kinds that the common table does not show. Where it looks odd it is part of the format, and the
// test's name says what it is.

#include "quorvex/packets/PacketKinds.h"
#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace Quorvex::test {
namespace {

template <class P> std::string written(P& packet) {
    char buffer[600];
    return hex({buffer, packet.write(buffer, sizeof buffer)});
}

template <class P> std::string readInFailure(const std::string& wire, unsigned length = 0) {
    const std::string raw = bytes(wire);
    const CPacketHeader header(P::kCode, static_cast<std::uint8_t>(length));
    unsigned consumed = 0;
    try {
        P(header, raw.data(), static_cast<unsigned>(raw.size()), consumed);
        return "consumed " + std::to_string(consumed);
    } catch (const CQVXException& exception) {
        return exception.what();
    }
}

/// A stream that fails as a broken device does.
class BrokenStream : public std::ostream {
public:
    BrokenStream() : std::ostream(&m_buffer) { exceptions(std::ios::badbit); }

private:
    struct Buffer : std::streambuf {
        int_type overflow(int_type) override { throw std::runtime_error("gone"); }
    } m_buffer;
};

const CCoreContext kContext(1, 2, 3, 4);

TEST(Instructions, TakeAHeaderWhoseCodeOrLengthIsNotTheirs) {
    const std::string context(24, '\x11');
    unsigned consumed = 0;
    CExecInsn packet(CPacketHeader(CharString, 99), context.data(), 24, consumed);
    EXPECT_EQ(consumed, 24U);
    EXPECT_EQ(packet.TraceCode(), CharString);
    EXPECT_EQ(packet.Length(), 99U);
    EXPECT_EQ(packet.Tick(), 0x1111111111111111U);
}

TEST(Instructions, HaveDefaultsThatMeanUnknown) {
    CExecInsn insn;
    EXPECT_EQ(written(insn), "10 18 ff ff ff ff ff ff ff ff 00 00 00 00 00 00 00 00 ff ff ff ff ff ff ff ff");
    CRelDirectBranch branch(1, 2, 0x1000);
    EXPECT_EQ(written(branch), "02 0a 01 02 00 10 00 00 00 00 00 00");
    EXPECT_EQ(CDirectBranch().BranchTargetAddress(), kUnknown64);
    EXPECT_EQ(CHWExceptionEnter().ExceptionId(), 0U);
    EXPECT_EQ(readInFailure<CRelExecInsn>(""), "CRelExecInsn: Read-In Constructor could not read context data.");
}

TEST(Instructions, ShareTheirBasesWithConstructorsThatTakeTheCode) {
    CBranchBase branch(IndirectBranch, kContext, 5);
    EXPECT_EQ(branch.TraceCode(), IndirectBranch);
    EXPECT_EQ(branch.StreamSize(), 34U);
    const CIndirectBranch fromFields(1, 2, 3, 4, 5);
    EXPECT_TRUE(static_cast<const CCoreContext&>(fromFields) == static_cast<const CCoreContext&>(branch));
    CDirectBranch copy;
    copy = CDirectBranch(kContext, 7);
    EXPECT_EQ(copy.BranchTargetAddress(), 7U);
    EXPECT_EQ(copy.SWCtx(), 3U);
}

TEST(TraceEnabledPacket, ReadsTheShortFormsAndWritesThemBackWithAFullPayload) {
    EXPECT_EQ(readInFailure<CTraceEnabled>("01 02 03 04 05 06 07 08", 8),
              "CTraceEnabled: Read-In constructor could no read payload data.");
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
        EXPECT_EQ(packet.StreamSize(), 18U);
        std::istringstream in(bytes(wire));
        CTraceEnabled fromStream;
        EXPECT_TRUE(fromStream.read(in));
        EXPECT_EQ(written(fromStream), expected);
    }
}

TEST(TraceEnabledPacket, KeepsTheExpansionAndTheFlagApart) {
    CTraceEnabled packet(1000, TraceExpansion(3), true);
    EXPECT_EQ(packet.FrameConfig().word(), 7U);
    packet.Expansion(NotExpanded);
    EXPECT_EQ(packet.FrameConfig().word(), 5U);
    packet.ExceptionFrames(false);
    EXPECT_EQ(packet.Expansion(), NotExpanded);
    EXPECT_FALSE(packet.ExceptionFrames());
}

TEST(TimestampPacket, GrowsWithEachFieldThatIsSetAndKnowsFourLengthsOnly) {
    CTimestamp packet(5);
    packet.HWCtx(2);
    EXPECT_EQ(packet.Length(), 12U);
    EXPECT_EQ(written(packet), "77 0c 05 00 00 00 00 00 00 00 02 00 00 00");
    packet.Frequency(3);
    EXPECT_EQ(packet.GetPayloadLength(), CTimestamp::Len_TS_HWCtx_Freq);
    EXPECT_EQ(readInFailure<CTimestamp>("01 02 03 04 05 06 07 08 09 0a", 10),
              "CTimestamp: Read-In Constructor coud not read timestamp from stream");
    const std::string raw = bytes("77 10 01 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00");
    EXPECT_EQ(packet.read(raw.data(), 18), 18U);
    EXPECT_FALSE(packet.is_HWCtx_valid());
    EXPECT_TRUE(packet.is_Frequency_valid());
    EXPECT_EQ(packet.Frequency(), 2U);
}

TEST(FillPacket, TakesAnyBytesAndWrites80) {
    CFill packet;
    EXPECT_EQ(packet.read("\x7d\x02xy", 4), 4U);
    EXPECT_EQ(written(packet), "7d 02 80 80");
    packet.SetLength(0);
    EXPECT_EQ(written(packet), "7d 00");
}

TEST(EmptyPackets, IgnoreALengthInTheirHeader) {
    EXPECT_EQ(readInFailure<CTraceDisabled>("11 22 33", 3), "consumed 0");
    EXPECT_EQ(readInFailure<CEndOfTrace>("", 200), "consumed 0");
}

TEST(SyncPacket, HasATextForEachMediumAndForASmallBuffer) {
    EXPECT_EQ(readInFailure<CSync>("11", 24), "CSync: Read-In Constructor invalid buffer size supplied");
    const CSync sync(kContext);
    EXPECT_EQ(sync.Length(), 24U);
}

TEST(Messages, HaveFixedLevelsByClass) {
    CErrorMsg error(7, "x");
    CDebugMsg debug(7, "");
    const CLogMsg log;
    EXPECT_EQ(written(error), "78 09 07 00 00 00 00 00 00 00 c0 7e 01 78");
    EXPECT_EQ(written(debug), "78 09 07 00 00 00 00 00 00 00 40");
    EXPECT_EQ(log.Level(), 0);
    EXPECT_EQ(log.Timestamp(), kUnknown64);
    EXPECT_EQ(readInFailure<CMessage>("01 02 03 04 05 06 07 08 09", 10),
              "CMessage: Read-In constructor was supplied invalid header data.");
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
    EXPECT_EQ(packet.Length(), 6U);
    packet.SrcFuncId(3);
    EXPECT_EQ(written(packet), "83 0a 01 02 03 00 00 00 07 00 00 00");
    packet.SrcFuncId(0xFFFFFFFF);
    EXPECT_EQ(packet.Length(), 6U);
    EXPECT_EQ(CFunctionEnter(kContext, 0xFFFFFFFF, 7).Length(), 28U);
    // A trace may hold the long form with an unknown source: it stays as it was.
    const std::string wire = bytes("83 0a 01 02 ff ff ff ff 07 00 00 00");
    EXPECT_EQ(packet.read(wire.data(), 12), 12U);
    EXPECT_EQ(written(packet), hex(wire));
}

TEST(FunctionEnterPacket, LogsWhichStepOfAPlainReadOrWriteFailed) {
    CFunctionEnter packet(kContext, 7);
    const std::string wire = bytes(written(packet));
    char buffer[64];
    std::ostringstream full;
    full.setstate(std::ios::badbit);
    std::istringstream empty, context(wire.substr(0, 20)), id(wire.substr(0, 28));
    std::string odd = wire;
    odd[1] = 30;
    std::istringstream invalid(odd);
    struct {
        bool done;
        const char* log;
    } const steps[] = {
        {packet.read(wire.data(), 1) != 0, "FunctionEnter: Failed to read header data from buffer.\n"},
        {packet.read(wire.data(), 25) != 0, "FunctionEnter: Failed to read core context from buffer.\n"},
        {packet.read(odd.data(), 30) != 0, "FunctionEnter: Invalid header data read from buffer.\n"},
        {packet.read(empty), "FunctionEnter: Failed to read header data from stream.\n"},
        {packet.read(context), "FunctionEnter: Failed to read core context from stream.\n"},
        {packet.read(id), "FunctionEnter: Failed to read function identifier from stream.\n"},
        {packet.read(invalid), "FunctionEnter: Invalid header data read from stream.\n"},
        {packet.write(buffer, 1) != 0, "FunctionEnter: Failed to write header data to buffer.\n"},
        {packet.write(buffer, 25) != 0, "FunctionEnter: Failed to write core context to buffer.\n"},
        {packet.write(buffer, 29) != 0, "FunctionEnter: Failed to write function identifier to buffer.\n"},
        {packet.write(full), "FunctionEnter: Failed to write header data to stream.\n"},
    };
    std::string expected;
    for (const auto& step : steps) {
        EXPECT_FALSE(step.done) << step.log;
        expected += step.log;
    }
    EXPECT_EQ(takeLog(), expected);
    EXPECT_EQ(written(packet), hex(wire));
}

TEST(SoftwareObjects, RefuseAHeaderThatIsNotTheirs) {
    const std::string payload(40, '\x01');
    const auto failure = [&](auto kind, tagTCode code, std::uint8_t length) -> std::string {
        unsigned consumed = 0;
        try {
            decltype(kind)(CPacketHeader(code, length), payload.data(), 40, consumed);
            return "read";
        } catch (const CQVXException& exception) {
            return exception.what();
        }
    };
    const std::string function = "CFunctionBase: Read-In constructor invalid header data supplied!";
    EXPECT_EQ(failure(CFunctionUndefine(), FunctionUndefine, 28), "read");
    EXPECT_EQ(failure(CFunctionUndefine(), FunctionUndefine, 27), function);
    EXPECT_EQ(failure(CFunctionUndefine(), FunctionUndefine, 29), function);
    EXPECT_EQ(failure(CFunctionUndefine(), ProcessUndefine, 28), function);
    EXPECT_EQ(failure(CTypeDefine(), TypeDefine, 28),
              "CTypeDefine: Read-In Constructor called with invalid header data");
    EXPECT_EQ(failure(CTypeDefine(), TypeDefine, 30),
              "CTypeDefine: Read-In Constructor called with invalid header data");
    EXPECT_EQ(failure(CVariableRead(), VariableRead, 40), "read");
    EXPECT_EQ(failure(CVariableRead(), VariableRead, 20),
              "CVariableAccBase: Read-In constructor invalid header data supplied!");
}

TEST(SoftwareObjects, CountTheDataButNotTheNameInTheirLength) {
    CFunctionDefine define(kContext, 1, "");
    EXPECT_EQ(define.StreamSize(), 30U) << "an empty name is not written";
    define.FuncDef(std::string(300, 'x').c_str());
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

TEST(DataPackets, CheckTheBufferForAllThatTheHeaderAnnouncesInTheAbsoluteForm) {
    EXPECT_EQ(readInFailure<CReadData>(std::string(2 * 40, '1'), 41),
              "CDataBase: Read-In constructor invalid input buffer size.");
    EXPECT_EQ(readInFailure<CRelReadData>(std::string(2 * 14, '1'), 15),
              "CRelDataBase: Read-In constructor could not read data.");
    EXPECT_EQ(readInFailure<CReadData>(std::string(2 * 97, '1'), 97),
              "CDataBase: Read-In constructor could not read data.")
        << "65 bytes of data";
    CWriteData packet;
    EXPECT_EQ(packet.Length(), 32U);
    packet.AccData() = CData(std::uint64_t{1}, 64);
    EXPECT_EQ(packet.Length(), 96U);
    EXPECT_EQ(packet.AccLen(), 64U);
    EXPECT_EQ(packet.AccAddr(), kUnknown64);
}

TEST(RelSignalPacket, IsReadFromNoBufferShorterThan18BytesThoughItMayBeSmaller) {
    const std::string small = bytes("c4 03 41 01 02") + std::string(13, '\x7a');
    CRelSignal packet;
    EXPECT_EQ(packet.read(small.data(), 5), 0U);
    EXPECT_EQ(packet.read(small.data(), 17), 0U);
    EXPECT_EQ(packet.read(small.data(), 18), 5U);
    EXPECT_EQ(written(packet), "c4 03 41 01 02");
    EXPECT_EQ(readInFailure<CRelSignal>("41 01 02", 3), "consumed 3") << "the Read-In constructor is not so";
    EXPECT_EQ(readInFailure<CRelSignal>("41 01 02 03", 4),
              "CRelSignal: Read-In Constructor could not read payload from stream")
        << "halves of an odd part";
    EXPECT_EQ(readInFailure<CRelSignal>(std::string(2 * 241, '1'), 241),
              "CRelSignal: Read-In Constructor could not read payload from stream")
        << "120 bytes a mask";
    takeLog();
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

TEST(BusPackets, TakePartsWithoutData) {
    EXPECT_EQ(readInFailure<CRelBusAddrData>("41 01 08 07 06 05 04 03 02 01", 10), "consumed 10");
    EXPECT_EQ(readInFailure<CRelBusAddrData>("41 01 08 07 06 05 04 03 02 01", 9),
              "CRelBusAddrData: Read-In Constructor called with invalid header data");
    EXPECT_EQ(readInFailure<CRelSystemData>("41", 1), "consumed 1");
    EXPECT_EQ(readInFailure<CBusSync>(std::string(2 * 20, '1'), 17),
              "CBusSync: Read-In Constructor called with invalid header data");
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

TEST(StateMachines, SayWhenATransitionIsShorterThanItsFixedPart) {
    EXPECT_EQ(readInFailure<CTransition>(std::string(2 * 30, '1'), 23),
              "Transition payload length in header is less than fixed payload size.");
    EXPECT_EQ(readInFailure<CTransition>(std::string(2 * 30, '1'), 24), "consumed 24");
    EXPECT_EQ(readInFailure<CStateDefine>("01 02 03 04 05 06 07 08 7a 00", 8), "consumed 8")
        << "a state without a name";
    EXPECT_EQ(readInFailure<CEvent>(std::string(2 * 92, '1'), 92), "consumed 92") << "64 bytes of data";
}

TEST(Counters, TakeTheNumberOfIndicesAndTheWidthFromTheLength) {
    TCounterIdx_t indices[28];
    for (unsigned i = 0; i < 28; ++i)
        indices[i] = TCounterIdx_t(std::uint64_t{i} + 1);
    CCounterValueDimN packet(kContext, 1, TCounter_t(1.5), CCounterIndexDimN(27, indices));
    EXPECT_EQ(packet.Length(), 252U);
    EXPECT_EQ(packet.CntrIdx(26).u64, 27U);
    packet = CCounterIndexDimN(2, indices);
    EXPECT_EQ(packet.Length(), 52U);
    EXPECT_EQ(packet.CntrIdx()[2].u64, 0U) << "those beyond the count are 0";
    const auto failure = [](auto step) -> std::string {
        try {
            step();
        } catch (const std::exception& error) {
            return error.what();
        }
        return {};
    };
    const std::string tooMany =
        "CCounterIndexDimN: Requested counter dimension is larger than maximal allowed counter dimension.";
    EXPECT_EQ(failure([&] { CCounterIndexDimN(28, indices); }), tooMany);
    EXPECT_EQ(failure([&] { CCounterIndexDimN::Byte2Dim(224); }), tooMany);
    EXPECT_EQ(failure([&] { packet.CntrIdx(std::uint8_t{2}); }),
              "CCounterIndexDimN: Requested index is larger or equal to the counter dimension.");
    EXPECT_EQ(CCounterIndexDimN::Byte2Dim(216), 27U);
    EXPECT_EQ(CCounterIndexDimN::Dim2Byte(3), 24U);

    EXPECT_EQ(readInFailure<CCounterValueDimN>(std::string(2 * 60, '1'), 41),
              "CCounterValueDimN: Read-In Constructor called with invalid header data");
    EXPECT_EQ(readInFailure<CRelCounterValueDimN>(std::string(2 * 240, '1'), 14 + 28 * 8),
              "CRelCounterValueDimN: Read-In Constructor called with invalid header data");
    EXPECT_EQ(readInFailure<CCounterValueVar>(std::string(2 * 60, '1'), 31),
              "CCounterValueVar: Read-In Constructor called with invalid header data");
    EXPECT_EQ(readInFailure<CCounterValueVar>(std::string(2 * 28, '1'), 28), "consumed 28") << "a value of no width";
    EXPECT_EQ(readInFailure<CCounterValueVar>(std::string(2 * 254, '1'), 254), "consumed 254");
    EXPECT_EQ(readInFailure<CCounterValue>(std::string(2 * 27, '1'), 36),
              "CCounterBase: Read-In constructor invalid buffer size supplied!");
    EXPECT_EQ(readInFailure<CCounterValue>(std::string(2 * 40, '1'), 28),
              "CCounterValueBase: Read-In Constructor called with invalid header data");
    EXPECT_EQ(failure([] { CCounterValueVarPayload::Len2Size(3); }),
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
    BrokenStream out;
    EXPECT_FALSE(insn.write(out));
    EXPECT_EQ(takeLog(), "CPacketHeader::write: Catched exception \"gone\"\n");

    // The header goes through, the value does not.
    struct OneShort : std::streambuf {
        int left = 2 + 24 + 4;
        int_type overflow(int_type c) override {
            return left-- > 0 ? traits_type::not_eof(c) : throw std::runtime_error("gone");
        }
    } buffer;
    std::ostream almost(&buffer);
    almost.exceptions(std::ios::badbit);
    CVariableWrite write(kContext, 1, CData(std::uint32_t{5}));
    EXPECT_FALSE(write.write(almost));
    EXPECT_EQ(takeLog(), "CVariableAccBasePayload::write: Catched exception while writing payload!\n");
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
