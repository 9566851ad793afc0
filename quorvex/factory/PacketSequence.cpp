#include "quorvex/factory/PacketSequence.h"

#include <cassert>
#include <mutex>

namespace Quorvex {

struct CPacketSequence::Lock : std::recursive_mutex {};

CPacketSequence::CPacketSequence() : m_lock(platform::makeOwned<Lock>()) {}

CPacketSequence::CPacketSequence(const CPacketSequence& other) : CPacketSequence() {
    const std::lock_guard hold(other);
    m_packets = other.m_packets;
}

CPacketSequence::~CPacketSequence() = default;

void CPacketSequence::lock() const {
    m_lock->lock();
}

void CPacketSequence::unlock() const {
    m_lock->unlock();
}

void CPacketSequence::push(CPacket* const& packet) {
    const std::lock_guard hold(*m_lock);
    m_packets.push_back(packet);
}

void CPacketSequence::pop() {
    get();
}

CPacket* CPacketSequence::get() {
    const std::lock_guard hold(*m_lock);
    if (m_packets.empty())
        return nullptr;
    CPacket* packet = m_packets.front();
    m_packets.pop_front();
    return packet;
}

CPacket*& CPacketSequence::front() {
    const std::lock_guard hold(*m_lock);
    assert(!m_packets.empty());
    return m_packets.front();
}

CPacket* const& CPacketSequence::front() const {
    const std::lock_guard hold(*m_lock);
    assert(!m_packets.empty());
    return m_packets.front();
}

CPacket*& CPacketSequence::back() {
    const std::lock_guard hold(*m_lock);
    assert(!m_packets.empty());
    return m_packets.back();
}

CPacket* const& CPacketSequence::back() const {
    const std::lock_guard hold(*m_lock);
    assert(!m_packets.empty());
    return m_packets.back();
}

CPacketSequence::iterator CPacketSequence::begin() {
    const std::lock_guard hold(*m_lock);
    return m_packets.begin();
}

CPacketSequence::const_iterator CPacketSequence::begin() const {
    const std::lock_guard hold(*m_lock);
    return m_packets.begin();
}

CPacketSequence::iterator CPacketSequence::end() {
    const std::lock_guard hold(*m_lock);
    return m_packets.end();
}

CPacketSequence::const_iterator CPacketSequence::end() const {
    const std::lock_guard hold(*m_lock);
    return m_packets.end();
}

void CPacketSequence::assign(const_iterator first, const_iterator last) {
    const std::lock_guard hold(*m_lock);
    m_packets.assign(first, last);
}

CPacketSequence::iterator CPacketSequence::insert(const_iterator position, CPacket* const& packet) {
    const std::lock_guard hold(*m_lock);
    return m_packets.insert(position, packet);
}

CPacketSequence::iterator CPacketSequence::insert(const_iterator position, const_iterator first, const_iterator last) {
    const std::lock_guard hold(*m_lock);
    return m_packets.insert(position, first, last);
}

CPacketSequence::iterator CPacketSequence::erase(const_iterator position) {
    const std::lock_guard hold(*m_lock);
    return m_packets.erase(position);
}

CPacketSequence::iterator CPacketSequence::erase(const_iterator first, const_iterator last) {
    const std::lock_guard hold(*m_lock);
    return m_packets.erase(first, last);
}

bool CPacketSequence::merge(CPacketSequence& other) {
    std::list<CPacket*> taken;
    other.move_to(taken);
    splice(taken);
    return true;
}

bool CPacketSequence::move_to(std::list<CPacket*>& list) {
    const std::lock_guard hold(*m_lock);
    if (m_packets.empty())
        return false;
    list.splice(list.end(), m_packets);
    return true;
}

bool CPacketSequence::splice(std::list<CPacket*>& list) {
    const std::lock_guard hold(*m_lock);
    m_packets.splice(m_packets.end(), list);
    return list.empty();
}

void CPacketSequence::clear() {
    const std::lock_guard hold(*m_lock);
    m_packets.clear();
}

bool CPacketSequence::empty() const {
    const std::lock_guard hold(*m_lock);
    return m_packets.empty();
}

unsigned CPacketSequence::size() const {
    const std::lock_guard hold(*m_lock);
    return static_cast<unsigned>(m_packets.size());
}

} // namespace Quorvex
