#pragma once

#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <list>

namespace Quorvex {

/// A list of packets, oldest first, that several threads may use at once: every operation holds the sequence's lock. No
/// operation ever holds the locks of two sequences.
///
/// It stores pointers only and never releases a packet: what is dropped by pop, erase, clear, assign or destruction
/// stays with whoever else knows it. A copy shares the packets of the original.
///
/// Iterators and references are used outside the lock. Where another thread may change the sequence meanwhile, hold it
/// with std::lock_guard, which asks for lock() and unlock(); the thread that holds it may go on using all operations.
class QUORVEX_API CPacketSequence {
public:
    using iterator = std::list<CPacket*>::iterator;
    using const_iterator = std::list<CPacket*>::const_iterator;

    CPacketSequence(); ///< throws std::bad_alloc
    CPacketSequence(const CPacketSequence& other);
    CPacketSequence& operator=(const CPacketSequence&) = delete;
    virtual ~CPacketSequence();

    void push(CPacket* const& packet);
    void pop();     ///< drops the first entry, if there is one
    CPacket* get(); ///< takes the first entry out; null when there is none

    // Only for a sequence that is not empty.
    CPacket*& front();
    CPacket* const& front() const;
    CPacket*& back();
    CPacket* const& back() const;

    iterator begin();
    const_iterator begin() const;
    iterator end();
    const_iterator end() const;

    // As the operations of std::list; a range stands outside this sequence.
    void assign(const_iterator first, const_iterator last);
    iterator insert(const_iterator position, CPacket* const& packet);
    iterator insert(const_iterator position, const_iterator first, const_iterator last);
    iterator erase(const_iterator position);
    iterator erase(const_iterator first, const_iterator last);

    /// Moves all entries of `other` to the back. Always true.
    bool merge(CPacketSequence& other);
    /// Moves all entries to the back of `list`; false when there are none.
    bool move_to(std::list<CPacket*>& list);
    /// Moves all of `list` to the back of the sequence; true when `list` is empty afterwards.
    bool splice(std::list<CPacket*>& list);

    void clear();
    bool empty() const;
    unsigned size() const;

    void lock() const;
    void unlock() const;

private:
    struct Lock;

    std::list<CPacket*> m_packets;
    platform::Owned<Lock> m_lock;
};

} // namespace Quorvex
