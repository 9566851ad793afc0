// What hosts that are compiled against the packet classes rely on: names, bases, constructors, the operations of
// payloads, what is protected for classes of their own, and the order of virtual operations.

#include "quorvex/packets/PacketImplementation.h"
#include "quorvex/packets/PacketKinds.h"
#include "tests/support/RandomPackets.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <sstream>

// The headers of the families take their macros back.
#if defined(QUORVEX_KIND) || defined(QUORVEX_BASE) || defined(QUORVEX_PAYLOAD) || defined(QUORVEX_FIELD) ||            \
    defined(QUORVEX_RESIZABLE) || defined(QUORVEX_PUBLIC_OPERATIONS) || defined(QUORVEX_DEFINITION) ||                 \
    defined(QUORVEX_ID_PAYLOAD) || defined(QUORVEX_NAME_PAYLOAD)
#error "a macro of the packet headers is left defined"
#endif

namespace Quorvex::test {
namespace {

const CCoreContext kCore(1, 2, 3, 4);
const CRelCoreContext kRel(5, 6);
const std::string kCoreWire = "01 00 00 00 00 00 00 00 02 00 00 00 03 00 00 00 04 00 00 00 00 00 00 00 ";
const std::string kRelWire = "05 06 ";
const CData kData(std::uint16_t{0x2211});

template <class Derived, class... Bases> constexpr bool kHas = (std::is_base_of_v<Bases, Derived> && ...);

// Contexts and CPacket are asked for where classes are shared; the view of contexts and the factory see the others.
static_assert(kHas<CBranchBase, CPacket, CCoreContext, CBranchTarget> &&
              kHas<CRelBranchBase, CPacket, CRelCoreContext, CBranchTarget> &&
              kHas<CHWExceptionBase, CPacket, CCoreContext, CHWExceptionBasePayload> &&
              kHas<CRelHWExceptionBase, CPacket, CRelCoreContext, CHWExceptionBasePayload> &&
              kHas<CFunctionBase, CPacket, CCoreContext, CFunctionIdentifier> &&
              kHas<CDataBase, CPacket, CCoreContext, CDataBasePayload> &&
              kHas<CRelDataBase, CPacket, CRelCoreContext, CDataBasePayload> &&
              kHas<CStateMachineBase, CPacket, CStateMachineIdentifier> &&
              kHas<CCounterBase, CPacket, CCoreContext, CCounterBasePayload> &&
              kHas<CCounterDefineBase, CCounterBase, CCounterDefineBasePayload> &&
              kHas<CRelCounterDefineBase, CRelCounterBase> && kHas<CRelCounterValueBase, CRelCounterBase> &&
              kHas<CCounterValueBase, CCounterBase, CCounterValueBasePayload>);
static_assert(kHas<CIndirectBranch, CBranchBase> && kHas<CRelDirectBranch, CRelBranchBase> &&
              kHas<CHWExceptionEnter, CHWExceptionBase> && kHas<CReadData, CDataBase> &&
              kHas<CRelWriteData, CRelDataBase> && kHas<CLogMsg, CMessage> && kHas<CDebugMsg, CMessage> &&
              kHas<CErrorMsg, CMessage> && kHas<CRelFunctionUndefine, CRelFunctionBase> &&
              kHas<CRelProcessEnter, CRelProcessBase> && kHas<CRelTypeUndefine, CRelTypeBase> &&
              kHas<CRelVariableWrite, CRelVariableAccBase> && kHas<CStateMachineUndefine, CStateMachineBase> &&
              kHas<CCounterUndefine, CCounterBase> && kHas<CRelCounterDefine, CRelCounterDefineBase>);
static_assert(kHas<CTraceEnabled, CTraceEnabledPayload> && kHas<CFill, CFillPayload> &&
              kHas<CTimestamp, CTimestampPayload> && kHas<CMessage, CMessagePayload> &&
              kHas<CFunctionDefine, CFunctionBase, CFunctionDefinePayload> &&
              kHas<CFunctionEnter, CFunctionEnterPayload> &&
              kHas<CProcessDefine, CProcessBase, CProcessDefinePayload> &&
              kHas<CTypeDefine, CTypeBase, CTypeDefinePayload> &&
              kHas<CVariableDefine, CVariableBase, CVariableDefinePayload> &&
              kHas<CVariableRead, CVariableAccBase, CVariableBasePayload, CVariableAccBasePayload>);
static_assert(kHas<CSignal, CSignalPayload> && kHas<CRelSignal, CSignalPayload> &&
              kHas<CSignalDefine, CSignalDefinePayload> && kHas<CSignalUndefine, CSignalUndefinePayload> &&
              kHas<CRelSystemData, CSystemDataPayload> && kHas<CBusData, CBusDataPayload> &&
              kHas<CBusAddrData, CBusAddrDataPayload> && kHas<CEventDefine, CEventDefinePayload> &&
              kHas<CEventUndefine, CEventUndefinePayload> && kHas<CEvent, CEventPayload> &&
              kHas<CStateMachineDefine, CStateMachineBase, CStateMachineDefinePayload> &&
              kHas<CStateMachineInstanceDefine, CStateMachineInstanceDefinePayload> &&
              kHas<CStateDefine, CStateDefinePayload> && kHas<CTransitionDefine, CTransitionDefinePayload> &&
              kHas<CInitialState, CInitialStatePayload> && kHas<CTransition, CStateMachineBase, CTransitionPayload>);
static_assert(kHas<CCounterDefineUnit, CCounterDefineBase> && kHas<CCounterValue, CCounterValueBase> &&
              kHas<CCounterValueDim1, CCounterValueBase, CCounterIndexDim1> &&
              kHas<CRelCounterValueDim2, CRelCounterValueBase, CCounterIndexDim2> &&
              kHas<CCounterValueDimN, CCounterValueBase, CCounterIndexDimN> &&
              kHas<CRelCounterValueVar, CRelCounterBase, CCounterValueVarPayload>);

static_assert(CExecInsn::Len() == 24 && CRelExecInsn::Len() == 2 && CDirectBranch::Len() == 32 &&
              CRelIndirectBranch::Len() == 10 && CHWExceptionLeave::Len() == 28 && CTraceEnabled::Len() == 16 &&
              CTraceDisabled::Len() == 0 && CEndOfTrace::Len() == 0 && CBranchTarget::Len() == 8 &&
              CDataBasePayload::Len() == 8 && CInitialStatePayload::Len() == 20 && CBusDataSignals::Len() == 1 &&
              CCounterIndexDimN::Len() == 0 && CCounterValueVarPayload::Len() == 0);

// 64-bit values may come as unsigned long long; so the factory and the setters get them in their tests.
using Wide = unsigned long long;
template <class P, class... Values> constexpr bool kTakes = std::is_constructible_v<P, Values...>;
static_assert(kTakes<CTimestamp, Wide> && kTakes<CTimestamp, Wide, unsigned> && kTakes<CTimestamp, Wide, Wide> &&
              kTakes<CTimestamp, Wide, unsigned, Wide> && kTakes<CTimestampPayload, Wide, Wide>);
static_assert(kTakes<CExecInsn, Wide, unsigned, unsigned, Wide> &&
              kTakes<CDirectBranch, Wide, unsigned, unsigned, Wide, Wide> &&
              kTakes<CRelDirectBranch, std::uint8_t, std::uint8_t, Wide> &&
              kTakes<CIndirectBranch, CCoreContext, Wide> &&
              kTakes<CHWExceptionEnter, Wide, unsigned, unsigned, Wide, unsigned> &&
              kTakes<CSync, Wide, int, int, Wide> && kTakes<CTraceBroken, Wide, unsigned, unsigned, Wide>);
static_assert(kTakes<CTraceEnabled, Wide, TraceExpansion, bool> && kTakes<CTraceEnabled, Wide, SFrameConfig> &&
              kTakes<CMessage, Wide, signed char> && kTakes<CErrorMsg, Wide, const char*>);
static_assert(kTakes<CFunctionEnter, Wide, unsigned, unsigned, Wide, unsigned, unsigned> &&
              kTakes<CVariableWrite, Wide, unsigned, unsigned, Wide, unsigned, CData> &&
              kTakes<CTypeDefine, Wide, unsigned, unsigned, Wide, unsigned, unsigned char, const char*>);
static_assert(kTakes<CReadData, CCoreContext, Wide> &&
              kTakes<CWriteData, Wide, unsigned, unsigned, Wide, Wide, CData> &&
              kTakes<CRelReadData, unsigned char, unsigned char, Wide>);
static_assert(kTakes<CBusData, Wide, unsigned, unsigned, CBusDataSignals, CData> &&
              kTakes<CBusAddrData, CBusContext, CBusDataSignals, Wide, CData> &&
              kTakes<CSystemSync, Wide, unsigned, unsigned>);
static_assert(kTakes<CEvent, Wide, unsigned, unsigned, Wide, unsigned> &&
              kTakes<CInitialState, unsigned, unsigned, unsigned, unsigned, Wide> &&
              kTakes<CTransition, unsigned, unsigned, unsigned, unsigned, Wide, CData> &&
              kTakes<CCounterValue, Wide, unsigned, unsigned, Wide, unsigned, TCounter_t>);

TEST(Interface, TellsAFrequencyFromACoreByItsWidth) {
    const CTimestamp timestamp(5ull, 6ull);
    EXPECT_TRUE(timestamp.is_Frequency_valid() && !timestamp.is_HWCtx_valid() && timestamp.Frequency() == 6);
}

/// A host's own class on a shared base: from its code, from values, and read in.
template <class Base, class... Values>
void expectBase(tagTCode code, const std::string& context, const std::string& payload, const Values&... values) {
    class Host : public Base {
    public:
        explicit Host(tagTCode ofCode) : Base(ofCode) {}
        explicit Host(tagTCode ofCode, const Values&... v) : Base(ofCode, v...) {}
        Host(const CPacketHeader& header, std::istream& in) : Base(header, in) {}
        Host(const CPacketHeader& header, const char* buf, unsigned size, unsigned& consumed)
            : Base(header, buf, size, consumed) {}
    };
    const std::string bare = bytes(context + payload);
    const CPacketHeader header(code, static_cast<std::uint8_t>(bare.size()));
    const std::string wire = std::string{static_cast<char>(code), static_cast<char>(bare.size())} + bare;
    Host fresh(code), made(code, values...);
    EXPECT_EQ(fresh.TraceCode(), code);
    EXPECT_EQ(fresh.Length(), Base::Len());
    std::istringstream in(bare);
    Host fromStream(header, in);
    unsigned consumed = 0;
    Host fromBuffer(header, bare.data(), header.Length(), consumed);
    EXPECT_EQ(consumed, header.Length());
    EXPECT_EQ(fresh.read(wire.data(), static_cast<unsigned>(wire.size())), wire.size());
    for (Host* packet : {&fresh, &made, &fromStream, &fromBuffer})
        EXPECT_EQ(hex(wireOf(*packet)), hex(wire));
    EXPECT_NE(thrownBy([&] { Host(header, bare.data(), header.Length() - 1, consumed); }), "");
    EXPECT_EQ(consumed, 0U);
}

TEST(Interface, LetsHostsBuildOnTheSharedBases) {
    const std::string id = "07 00 00 00 ", address = "08 00 00 00 00 00 00 00 ", data = "11 22";
    const std::uint32_t seven = 7;
    const std::uint64_t eight = 8;
    const std::uint8_t five = 5, six = 6, nine = 9;
    expectBase<CBranchBase>(DirectBranch, kCoreWire, address, kCore, eight);
    expectBase<CBranchBase>(IndirectBranch, kCoreWire, address, 1U, 2U, 3U, 4U, eight);
    expectBase<CRelBranchBase>(RelDirectBranch, kRelWire, address, kRel, eight);
    expectBase<CHWExceptionBase>(HWExceptionEnter, kCoreWire, id, kCore, seven);
    expectBase<CRelHWExceptionBase>(RelHWExceptionLeave, kRelWire, id, five, six, seven);
    expectBase<CFunctionBase>(FunctionUndefine, kCoreWire, id, kCore, seven);
    expectBase<CRelFunctionBase>(RelFunctionUndefine, kRelWire, id, kRel, seven);
    expectBase<CProcessBase>(ProcessEnter, kCoreWire, id, kCore, seven);
    expectBase<CRelProcessBase>(RelProcessEnter, kRelWire, id, kRel, seven);
    expectBase<CTypeBase>(TypeUndefine, kCoreWire, id, kCore, seven);
    expectBase<CRelTypeBase>(RelTypeUndefine, kRelWire, id, kRel, seven);
    expectBase<CVariableBase>(VariableUndefine, kCoreWire, id, kCore, seven);
    expectBase<CRelVariableBase>(RelVariableUndefine, kRelWire, id, kRel, seven);
    expectBase<CVariableAccBase>(VariableRead, kCoreWire, id, kCore, seven);
    expectBase<CRelVariableAccBase>(RelVariableWrite, kRelWire, id + data, kRel, seven, kData);
    expectBase<CDataBase>(ReadData, kCoreWire, address, 1U, 2U, 3U, 4U, eight);
    expectBase<CDataBase>(WriteData, kCoreWire, address + data, kCore, eight, kData);
    expectBase<CRelDataBase>(RelReadData, kRelWire, address + data, five, six, eight, kData);
    expectBase<CStateMachineBase>(StateMachineUndefine, "", id, seven);
    expectBase<CCounterBase>(CounterUndefine, kCoreWire, id, kCore, seven);
    expectBase<CRelCounterBase>(RelCounterUndefine, kRelWire, id, five, six, seven);
    expectBase<CCounterDefineBase>(CounterDefine, kCoreWire, id + "09", kCore, seven, nine);
    expectBase<CRelCounterDefineBase>(RelCounterDefine, kRelWire, id + "09", kRel, seven, nine);
    expectBase<CCounterValueBase>(CounterValue, kCoreWire, id + address, kCore, seven, TCounter_t(eight));
    expectBase<CRelCounterValueBase>(RelCounterValue, kRelWire, id + address, kRel, seven, TCounter_t(eight));
}

/// A payload whose protected operations a host's class uses.
template <class Payload> struct Open : Payload { using Payload::_length, Payload::read, Payload::write; };

/// Moves a payload by itself: its fields, and the text that follows it.
template <class Payload, class... Length>
void expectMove(const std::string& fields, const std::string& text, Length... length) {
    const std::string wire = bytes(fields + text);
    const auto size = static_cast<unsigned>(wire.size());
    Open<Payload> fromBuffer, fromStream;
    EXPECT_EQ(fromBuffer.read(wire.data(), size, static_cast<std::uint8_t>(length)...), size) << hex(wire);
    std::istringstream in(wire);
    EXPECT_TRUE(fromStream.read(in, static_cast<std::uint8_t>(length)...));
    for (Open<Payload>* payload : {&fromBuffer, &fromStream}) {
        // Cut in the fields, nothing is read or changed.
        const unsigned cut = payload->_length() - 1U;
        EXPECT_EQ(payload->read(std::string(cut, '\x7f').data(), cut, static_cast<std::uint8_t>(length)...), 0U);
        std::istringstream little(std::string(cut, '\x7f'));
        EXPECT_FALSE(payload->read(little, static_cast<std::uint8_t>(length)...));
        EXPECT_EQ(payload->_length(), bytes(fields).size());
        std::string written(size, '\0');
        EXPECT_EQ(payload->write(written.data(), cut), 0U);
        EXPECT_EQ(payload->write(written.data(), size), size);
        EXPECT_EQ(hex(written), hex(wire));
        std::ostringstream out;
        EXPECT_TRUE(payload->write(out));
        EXPECT_EQ(hex(out.str()), hex(wire));
    }
    takeLog();
}

/// The same for all payloads of a layout.
template <class... Payloads, class... Length>
void expectMoves(const std::string& fields, const std::string& text, Length... length) {
    (expectMove<Payloads>(fields, text, length...), ...);
}

TEST(Interface, LetsPayloadsMoveByThemselves) {
    const std::string id = "01 02 03 04 ", wide = "01 02 03 04 05 06 07 08 ", name = "7e 02 61 62", data = "21 22 23";
    expectMoves<CHWExceptionBasePayload, CFunctionIdentifier, CProcessBasePayload, CTypeBasePayload,
                CVariableBasePayload, CSignalUndefinePayload, CEventUndefinePayload, CStateMachineIdentifier,
                CCounterBasePayload>(id, "");
    expectMoves<CBranchTarget, CCounterValueBasePayload, CCounterIndexDim1>(wide, "");
    expectMoves<CTypeDefinePayload, CCounterDefineBasePayload>("05", name);
    expectMoves<CVariableDefinePayload, CStateMachineInstanceDefinePayload, CStateDefinePayload>(id, name);
    expectMoves<CVariableAccBasePayload, CSystemDataPayload>(data, "", 3);
    expectMoves<CTraceEnabledPayload>(id + wide + id, "", 16);
    expectMoves<CTimestampPayload, CFunctionEnterPayload>(wide, "", 8);
    expectMoves<CTimestampPayload>(wide + id, "", 12);
    expectMoves<CFillPayload>("80 80", "", 2);
    expectMoves<CMessagePayload>(wide + "40", name);
    expectMoves<CFunctionEnterPayload>(id, "", 4);
    expectMoves<CDataBasePayload>(wide + data, "", 3);
    expectMoves<CDataBasePayload>(wide, "", 0);
    expectMoves<CBusDataPayload>("02" + data, "", 4);
    expectMoves<CBusAddrDataPayload>("02" + wide + data, "", 12);
    expectMoves<CSignalPayload>("11 12 21 22", "", 4);
    expectMoves<CSignalDefinePayload>(id + "11", name, 5);
    expectMoves<CEventDefinePayload>(id + "07 00 00 00", name);
    expectMoves<CEventPayload>(id + data, "", 3);
    expectMoves<CTransitionDefinePayload>(id + id + id, name);
    expectMoves<CInitialStatePayload>(id + id + id + wide, "");
    expectMoves<CTransitionPayload>(id + id + id + wide + data, "", 3);
    expectMoves<CCounterIndexDim2>(wide + wide, "");
    expectMoves<CCounterIndexDimN>(wide + wide + wide, "", 24);
    expectMoves<CCounterValueVarPayload>(data + data, "", 6);

    // A name alone, and what is nothing at all.
    for (const auto& [wire, length] : {std::pair{"7e 02 61 62", 4U}, {"7a 00", 0U}}) {
        Open<CFunctionDefinePayload> function;
        Open<CProcessDefinePayload> process;
        Open<CStateMachineDefinePayload> machine;
        const std::string text = bytes(wire);
        const auto size = static_cast<unsigned>(text.size());
        EXPECT_EQ(function.read(text.data(), size) + process.read(text.data(), size) + machine.read(text.data(), size),
                  3 * length);
        EXPECT_EQ(function.FuncDef().view() == "ab" && process.ProcDef().view() == "ab" &&
                      machine.StateMachineDefinition().view() == "ab",
                  length != 0);
    }
    // Public, and with a count, where payloads of nothing are no failure.
    unsigned moved = 7;
    char buffer[4];
    CSystemDataPayload none(kData);
    EXPECT_TRUE(none.read("", 0, 0, moved) && moved == 0 && none.Data().Length() == 0);
    EXPECT_TRUE(none.write(buffer, 4, moved) && moved == 0);
    CSignalPayload odd;
    EXPECT_FALSE(odd.read("abc", 3, 3, moved));
    Open<CCounterValueVarPayload> widths;
    EXPECT_EQ(thrownBy([&] { widths.read("abc", 3, 3, moved); }), "Len2Size: supplied size must be multiples of two!");
    widths.CntrVal(std::uint8_t{1});
    std::ostringstream out;
    EXPECT_FALSE(widths.write(out) || widths.write(buffer, 4));
    EXPECT_EQ(out.str(), "");
    // In memory, a cut definition of a counter counts as none.
    Open<CCounterDefineBasePayload> cut;
    EXPECT_EQ(cut.read("\5\x7e\5a", 4), 1U);
}

TEST(Interface, LetsHostsKeepTheLengthThemselves) {
    struct Data : CRelReadData {
        void grow() {
            AccData() = kData;
            EXPECT_EQ(CPacketHeader::Length(), 10U);
            SetPacketHeaderLength();
        }
    } access;
    access.grow();
    EXPECT_TRUE(access.CPacketHeader::Length() == 12U);
    struct Enter : CFunctionEnter {
        using CFunctionEnter::CFunctionEnter;
        unsigned choose() {
            SetLength();
            return GetLength();
        }
    };
    Enter one(kCore, 7), two(kCore, 6, 7);
    EXPECT_TRUE(one.choose() == 28 && one.PayloadLength() == 4 && two.choose() == 32 && two.PayloadLength() == 8);
    EXPECT_TRUE(Enter::Len_Form1 == 4 && Enter::Len_Form2 == 8);
    struct Reader : CRelWriteData {
        bool take(const std::string& payload, std::uint8_t data) {
            return CDataBasePayload::read(payload.data(), static_cast<unsigned>(payload.size()), data) != 0;
        }
    } reader;
    EXPECT_TRUE(reader.take("addressxdata", 4));
    EXPECT_EQ(reader.CPacketHeader::Length(), 14U);
}

/// A host's kind: a shared base with one more payload, of changing size.
TEST(Interface, LetsHostsAddAPayloadToAPacket) {
    static constexpr ReadRules kRules{.payload = "could not read the host's data"};
    struct Host : PacketOf<kRules, CFunctionBase, CVariableAccBasePayload> {
        Host() : PacketOf(FunctionUndefine) {}
    } packet;
    packet.VarData(kData);
    EXPECT_EQ(packet.CPacketHeader::Length(), 30U);
    const std::string wire = wireOf(packet);
    Host read;
    EXPECT_EQ(read.read(wire.data(), static_cast<unsigned>(wire.size())), wire.size());
    EXPECT_EQ(hex(wireOf(read)), hex(wire));
}

/// Where a virtual operation stands among those of its class.
template <class Operation> std::ptrdiff_t slot(Operation operation) {
    std::ptrdiff_t word;
    std::memcpy(&word, &operation, sizeof word);
    return (word - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(Interface, KeepsTheOrderOfVirtualOperations) {
    const std::ptrdiff_t destructors = slot(&CPacket::TraceCode);
    const std::ptrdiff_t packet[] = {slot(&CPacket::TraceCode),
                                     slot(&CPacket::Length),
                                     slot(&CPacket::StreamSize),
                                     slot(static_cast<unsigned (CPacket::*)(const char*, unsigned)>(&CPacket::read)),
                                     slot(static_cast<bool (CPacket::*)(std::istream&)>(&CPacket::read)),
                                     slot(static_cast<unsigned (CPacket::*)(char*, unsigned)>(&CPacket::write)),
                                     slot(static_cast<bool (CPacket::*)(std::ostream&)>(&CPacket::write))};
    for (std::ptrdiff_t i = 0; i < std::ssize(packet); ++i)
        EXPECT_EQ(packet[i], destructors + i);
    using Enter = CFunctionEnterPayload;
    const std::ptrdiff_t enter[] = {slot(&Enter::SrcFuncIdIsValid),
                                    slot(&Enter::TgtFuncIdIsValid),
                                    slot(static_cast<void (Enter::*)(std::uint32_t)>(&Enter::SrcFuncId)),
                                    slot(static_cast<std::uint32_t (Enter::*)() const>(&Enter::SrcFuncId)),
                                    slot(static_cast<void (Enter::*)(std::uint32_t)>(&Enter::TgtFuncId)),
                                    slot(static_cast<std::uint32_t (Enter::*)() const>(&Enter::TgtFuncId))};
    for (std::ptrdiff_t i = 0; i < std::ssize(enter); ++i)
        EXPECT_EQ(enter[i], i);
    using Target = CBranchTarget;
    EXPECT_EQ(slot(static_cast<void (Target::*)(std::uint64_t)>(&Target::BranchTargetAddress)), destructors);
    EXPECT_EQ(slot(static_cast<std::uint64_t (Target::*)() const>(&Target::BranchTargetAddress)), destructors + 1);
    static_assert(std::has_virtual_destructor_v<CBranchTarget> && std::has_virtual_destructor_v<CDataBasePayload>);
}

TEST(Interface, HasAGetterAndASetterOfEachField) {
    const CCharStringSequence text("name");
    const auto expect = [](bool good) { EXPECT_TRUE(good); };
    const auto check = [&](auto packet, const auto&... steps) { (expect(steps(packet)), ...); };
#define QUORVEX_SET(Name, value) [&](auto& p) { return p.Name(value), p.Name() == value; }
#define QUORVEX_SET_TEXT(Name) [&](auto& p) { return p.Name(text), p.Name().view() == text.view(); }
    check(CTraceBroken(), QUORVEX_SET(Tick, 1ULL), QUORVEX_SET(HWCtx, 1U), QUORVEX_SET(SWCtx, 1U),
          QUORVEX_SET(CurrAddr, 1ULL));
    check(CRelExecInsn(), QUORVEX_SET(RelTick, 1), QUORVEX_SET(RelCurrAddr, 1));
    check(CDirectBranch(), QUORVEX_SET(BranchTargetAddress, 1ULL));
    check(CHWExceptionEnter(), QUORVEX_SET(ExceptionId, 1U));
    check(CTraceEnabled(), QUORVEX_SET(Version, 1U), QUORVEX_SET(FrameLen, 1ULL), QUORVEX_SET(Expansion, Expanded),
          QUORVEX_SET(ExceptionFrames, true),
          [](auto& p) { return p.FrameConfig(SFrameConfig(MixExpanded)), p.FrameConfig().word() == 3; });
    check(
        CTimestamp(), QUORVEX_SET(Timestamp, 1ULL), QUORVEX_SET(HWCtx, 1U), QUORVEX_SET(Frequency, 1ULL),
        [](auto& p) { return p.GetPayloadLength() == CTimestamp::Len_TS_HWCtx_Freq; },
        [](auto&) { return CTimestampPayload::Len2FieldsValid(9) == CTimestampPayload::None; });
    check(CMessage(), QUORVEX_SET(Timestamp, 1ULL), QUORVEX_SET(Level, -1), QUORVEX_SET_TEXT(message),
          [](auto& p) { return p.message("m"), p.message().view() == "m"; });
    check(CFunctionDefine(), QUORVEX_SET(FuncId, 1U), QUORVEX_SET_TEXT(FuncDef));
    check(CFunctionLeave(), QUORVEX_SET(SrcFuncId, 1U), QUORVEX_SET(TgtFuncId, 1U),
          [](auto& p) { return p.SrcFuncIdIsValid() && p.TgtFuncIdIsValid(); });
    check(CProcessDefine(), QUORVEX_SET(ProcId, 1U), QUORVEX_SET_TEXT(ProcDef));
    check(CTypeDefine(), QUORVEX_SET(TypeId, 1U), QUORVEX_SET(VarSize, 1), QUORVEX_SET_TEXT(TypeDef));
    check(CVariableDefine(), QUORVEX_SET(VarId, 1U), QUORVEX_SET(TypeId, 1U), QUORVEX_SET_TEXT(VarDef));
    check(CVariableRead(), QUORVEX_SET(VarId, 1U), QUORVEX_SET(VarData, kData),
          [](const auto& p) { return p.VarLen() == 2 && p.VarData() == kData; });
    check(CReadData(), QUORVEX_SET(AccAddr, 1ULL), QUORVEX_SET(AccData, kData),
          [](const auto& p) { return p.AccLen() == 2 && p.AccData() == kData; });
    check(CBusAddrData(), QUORVEX_SET(Signals, CBusDataSignals(BusAccRead)), QUORVEX_SET(Addr, 1ULL),
          QUORVEX_SET(Data, kData), QUORVEX_SET(Master, 1U));
    check(CSystemData(), QUORVEX_SET(Data, kData), QUORVEX_SET(Channel, 1U));
    check(CSignal(), QUORVEX_SET(SignalValue, CSignalMask("10")), QUORVEX_SET(SignalMask, CSignalMask("11")));
    check(CSignalDefine(), QUORVEX_SET(SignalId, 1U), QUORVEX_SET(SignalMask, CSignalMask("11")),
          QUORVEX_SET_TEXT(SignalDef));
    check(CEventDefine(), QUORVEX_SET(EvtId, 1U), QUORVEX_SET(EvtType, Breakpoint), QUORVEX_SET_TEXT(EvtDef));
    check(CEvent(), QUORVEX_SET(EvtId, 1U), QUORVEX_SET(EvtData, kData));
    check(CStateMachineDefine(), QUORVEX_SET(StateMachine, 1U), QUORVEX_SET_TEXT(StateMachineDefinition));
    check(CStateMachineInstanceDefine(), QUORVEX_SET(StateMachineInstance, 1U));
    check(CStateDefine(), QUORVEX_SET(State, 1U));
    check(CTransitionDefine(), QUORVEX_SET(SourceState, 1U), QUORVEX_SET(TargetState, 1U), QUORVEX_SET(Transition, 1U));
    check(CInitialState(), QUORVEX_SET(StateMachineInstance, 1U), QUORVEX_SET(State, 1U), QUORVEX_SET(HWCtx, 1U),
          QUORVEX_SET(Tick, 1ULL));
    check(CTransition(), QUORVEX_SET(Tick, 1ULL), QUORVEX_SET(TransitionId, 1U), QUORVEX_SET(EventData, kData));
    check(CCounterDefine(), QUORVEX_SET(CntrId, 1U), QUORVEX_SET(CntrDim, 1), QUORVEX_SET_TEXT(CntrDef));
    const auto counts = [](auto word) {
        return [word](auto& p) { return p.CntrVal(word), p.CntrVal().u64 == word.u64; };
    };
    check(CCounterValue(), counts(TCounter_t(2.5)));
    check(CCounterValueDim2(), [](auto& p) {
        p.CntrIdx1(TCounterIdx_t(1.5)), p.CntrIdx2(TCounterIdx_t(2.5));
        return p.CntrIdx1().dbl == 1.5 && p.CntrIdx2().dbl == 2.5;
    });
    check(CCounterValueVar(), QUORVEX_SET(CntrVal, TVarCounter_t(2.5)), QUORVEX_SET(CntrIdx, TVarCounter_t(1.5)));
    check(CCounterValueDimN(), [](auto& p) {
        const TCounterIdx_t indices[] = {TCounterIdx_t(1.5), TCounterIdx_t(2.5)};
        p.CntrIdx(2, indices);
        p.CntrIdx(1) = TCounterIdx_t(3.5);
        return p.CntrDim() == 2 && p.CntrIdx()[1].dbl == 3.5;
    });
#undef QUORVEX_SET
#undef QUORVEX_SET_TEXT
}

} // namespace
} // namespace Quorvex::test
