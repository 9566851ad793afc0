#include "quorvex/instrument/IdSet.h"

#include "quorvex/platform/System.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Quorvex::detail {

IdSet::~IdSet() {
    delete[] m_packed;
    release();
}

void IdSet::release() {
    if (m_slots != m_own.data())
        platform::freePages(m_slots, m_slotCount * sizeof *m_slots);
    m_slots = m_own.data();
    m_slotCount = kOwnSlots;
}

std::uint32_t& IdSet::slotOf(std::uint32_t* slots, unsigned count, std::uint32_t id) {
    unsigned at = id * 0x9E3779B1U >> 7; // neighbours are spread
    while (slots[at % count] != 0 && slots[at % count] != id)
        ++at;
    return slots[at % count];
}

bool IdSet::grow() {
    const unsigned count = m_slotCount == kOwnSlots ? kFirstSlots : 2 * m_slotCount;
    auto* slots = static_cast<std::uint32_t*>(platform::allocatePages(count * sizeof *m_slots));
    if (!slots)
        return false;
    for (unsigned i = 0; i < m_slotCount; ++i) {
        if (m_slots[i] != 0)
            slotOf(slots, count, m_slots[i]) = m_slots[i];
    }
    release();
    m_slots = slots;
    m_slotCount = count;
    return true;
}

bool IdSet::insert(std::uint32_t id) {
    if (id < kFew) {
        const bool isNew = !contains(id);
        m_few[id / kBits] |= std::uint32_t{1} << id % kBits;
        return isNew;
    }
    std::uint32_t* slot = &slotOf(m_slots, m_slotCount, id);
    if (*slot == id)
        return false;
    if (4 * (m_count + 1) > 3 * m_slotCount) {
        if (!grow())
            return true;
        slot = &slotOf(m_slots, m_slotCount, id);
    }
    *slot = id;
    ++m_count;
    return true;
}

void IdSet::pack() {
    if (m_slots == m_own.data())
        return;
    m_packed = new (std::nothrow) std::uint32_t[m_count];
    if (!m_packed)
        return;
    std::copy_if(m_slots, m_slots + m_slotCount, m_packed, [](std::uint32_t id) { return id != 0; });
    release();
    m_own.fill(0);
}

void IdSet::unpack() {
    if (const std::uint32_t* const packed = std::exchange(m_packed, nullptr)) {
        for (unsigned i = 0, count = std::exchange(m_count, 0); i < count; ++i)
            insert(packed[i]);
        delete[] packed;
    }
}

} // namespace Quorvex::detail
