#pragma once

#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/Merged.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qvx {

class Selection;

/// The packets of traces that are selected, as objects in absolute form: of one trace all of them, as they stand; of
/// several, those that do not only frame a trace or restate contexts, in the order of ticks.
class Timeline : private Quorvex::PacketFilter {
public:
    /// Sees the packets that are not handed out, in their order among the others of their trace; of those behind --to,
    /// definitions only.
    class Onlooker {
    public:
        virtual ~Onlooker() = default;
        virtual void pass(std::size_t file, const Quorvex::CTraceCursor& packet) = 0;
        virtual void pass(std::size_t file, const Quorvex::CPacket& packet, std::uint64_t tick) = 0;
    };

    /// The selection has been begun for these files.
    Timeline(const std::vector<std::string>& files, Selection& selection, Onlooker* onlooker);

    /// The next packet; null behind the last one. Throws what TraceFile throws.
    PacketPointer next();
    std::size_t file() const { return m_file; }       ///< of which trace it is
    std::uint64_t tick() const { return m_tick; }     ///< its tick; kUnknown64 where it has none
    std::uint64_t offset() const { return m_offset; } ///< where it begins
    /// Tells of damage and what else is to be told; the exit code that follows.
    ExitCode reportDamage() const;

private:
    bool wants(std::size_t file, const Quorvex::CTraceCursor& packet) override;
    void passBy(std::size_t file, const Quorvex::CTraceCursor& packet);
    PacketPointer nextOfOne();
    PacketPointer nextOfMany();

    Selection& m_selection;
    Onlooker* m_onlooker;
    std::unique_ptr<TraceInput> m_one; ///< the only trace
    Quorvex::Merged m_many;
    std::uint64_t m_left; ///< packets that may still be taken
    std::size_t m_file = 0;
    std::uint64_t m_tick = Quorvex::kUnknown64;
    std::uint64_t m_offset = 0;
};

} // namespace qvx
