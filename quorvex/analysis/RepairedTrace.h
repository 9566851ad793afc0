#pragma once

#include "quorvex/analysis/RepairBytes.h"
#include "quorvex/analysis/RepairSolver.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceRepair.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/OpenFrame.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex::detail {

/// Writes the packets of a trace that is put together from what could be read.
class RepairedTrace {
public:
    using Take = void (*)(void*, const RepairNote&);

    RepairedTrace(RepairWindow& in, CTraceSinkBuffer& to, bool isPaged, const RepairOptions& options,
                  RepairReport& report, Take take, void* taker);

    // What comes next may end the packet before it, which may have to look at the next page: that moves the window, and
    // views of it are no good any more.

    /// A packet that stands there, with that length.
    void packet(std::uint64_t offset, RepairSolver::Part part);

    /// Bytes that are no packet; their header announces them if that is what they are stepped over by.
    void lose(std::uint64_t offset, std::uint64_t size, bool isAnnounced = false);

    /// Nothing follows.
    void end(std::uint64_t size);

    bool isWritten() const { return m_report.isWritten; }
    std::uint64_t lastTick() const { return m_lastTick; }

private:
    void note(std::uint64_t offset, std::uint64_t length, tagTCode kind, CheckRule rule, bool isLoss, std::string text);

    void closeGap(CheckRule rule = CheckRule::Damage);

    void addText(std::string_view bytes, RepairSolver::Part part);

    /// The packet is there with all its text, which what is at `next` does not belong to.
    void endUnit(std::uint64_t next);

    void process(tagTCode code);

    void writeOther(tagTCode code);

    /// A sync packet at the start of a page.
    void restate(ContextSort sort);

    void takeSync(ContextSort sort);

    void leavePageStart();

    /// A packet whose header is not right may have been a sync packet, if its code or its length is that of one.
    void doubtBehind(std::string_view header);

    void doubt(ContextSort sort);

    /// Sees to it that a relative packet comes to stand behind the context that it is relative to.
    void placeRelative(ContextSort sort);

    /// The sync packet that tells that nothing is known.
    static PacketPointer unknownSync(ContextSort sort);

    /// Takes the context from the start of the next page, if nothing on this page changes it and all of it can be read.
    bool findRestated(ContextSort sort);

    void endStretch(ContextSort sort, std::uint64_t next);

    /// An EndOfTrace packet counts where the trace ends, or another one begins.
    void settleEnd(tagTCode next);

    void processFrame(tagTCode code, std::uint64_t offset);

    void openFrame(const CTraceEnabled& enabled);

    /// What stands here may have been in a frame whose beginning is lost.
    void beginFrame();

    void closeFrame();

    /// Puts the length of the frame that has just ended into its first packet; a writer of pages has done that itself.
    void tellFrameLength(bool isTold);

    void writeFills();

    void add(tagTCode code);

    /// Null, with a note of that, where the bytes are none.
    PacketPointer unitPacket();

    void writeUnit();
    void writeUnit(CPacket& packet);

    void write(CPacket& packet);

    /// What relative packets of a sort are relative to.
    struct Reference {
        bool isDoubtful = false;     ///< it may have been told where something is lost
        bool wasSought = false;      ///< the next page does not tell
        std::uint64_t users = 0;     ///< packets since it was told
        std::uint64_t uncertain = 0; ///< those of them for which it is doubtful,
        std::uint64_t stretch = 0;   ///< from there on
    };

    RepairWindow& m_in;
    CTraceSinkBuffer& m_sink;
    bool m_isPaged;
    const RepairOptions& m_options;
    RepairReport& m_report;
    Take m_take;
    void* m_taker;
    std::optional<CTraceWriterPaged> m_paged;
    std::optional<CTraceWriterPlain> m_plain;
    CTraceSinkEx* m_writer = nullptr;
    std::uint64_t m_lastTick = kUnknown64;
    std::uint64_t m_here = 0; ///< what is before it is not looked at any more
    // What is stepped over.
    std::uint64_t m_gapFrom = kUnknown64; ///< unknown: nothing
    std::uint64_t m_gapTo = 0;
    // The packet that is not processed yet, with its text.
    std::string m_unit;
    std::uint64_t m_unitOffset = 0;
    std::uint64_t m_unitEnd = 0;
    std::uint64_t m_unitNext = 0;    ///< where the next one may begin
    std::uint64_t m_unitDropped = 0; ///< bytes of its text
    bool m_unitGoesOn = false;       ///< (more of) its text may follow
    bool m_unitHasText = false;
    bool m_isCutInText = false;
    // What was written.
    tagTCode m_lastCode = Invalid;
    bool m_takesText = false; ///< the last packet would take a text behind it for its own
    CContexts m_written;      ///< what the packets that were written tell
    // Pages.
    std::uint64_t m_page = 0;
    bool m_isAtPageStart = false;
    std::array<bool, 4> m_restated{};
    std::vector<std::uint8_t> m_fills; ///< that may be the page's padding
    std::uint64_t m_oddFills = 0;
    std::uint64_t m_firstOddFill = 0;
    // Contexts.
    CContexts m_contexts; ///< what the packets that were read tell
    std::array<Reference, 4> m_references{};
    // Frames.
    std::uint64_t m_frameBegin = kUnknown64;
    std::uint64_t m_frameLength = kUnknown64;
    std::uint64_t m_endAt = kUnknown64; ///< of an EndOfTrace packet that is not written yet
    bool m_lossInFrame = false;         ///< or since the last one
    bool m_mayHaveBegun = false;        ///< where bytes were lost
    OpenFrame m_openFrame;
};

} // namespace Quorvex::detail
