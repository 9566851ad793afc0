#include "quorvex/packets/CounterPackets.h"

#include <algorithm>
#include <stdexcept>

namespace Quorvex {

namespace {

constexpr char kTooMany[] =
    "CCounterIndexDimN: Requested counter dimension is larger than maximal allowed counter dimension.";

/// Numbers of an inline width are built from their value, so that they hold it and not a buffer.
TVarCounter_t makeCounter(const char* from, unsigned size) {
    switch (size) {
    case 0:
        return TVarCounter_t();
    case 1:
        return TVarCounter_t(loadLittleEndian<std::uint8_t>(from));
    case 2:
        return TVarCounter_t(loadLittleEndian<std::uint16_t>(from));
    case 4:
        return TVarCounter_t(loadLittleEndian<std::uint32_t>(from));
    case 8:
        return TVarCounter_t(loadLittleEndian<std::uint64_t>(from));
    default:
        return TVarCounter_t(reinterpret_cast<const std::uint8_t*>(from), static_cast<std::uint8_t>(size));
    }
}

} // namespace

void CCounterIndexDimN::checkIndex(std::uint8_t index) const {
    if (index >= m_dimensions)
        throw std::out_of_range("CCounterIndexDimN: Requested index is larger or equal to the counter dimension.");
}

const TCounterIdx_t& CCounterIndexDimN::CntrIdx(std::uint8_t index) const {
    checkIndex(index);
    return m_indices[index];
}

TCounterIdx_t& CCounterIndexDimN::CntrIdx(std::uint8_t index) {
    checkIndex(index);
    return m_indices[index];
}

void CCounterIndexDimN::CntrIdx(std::uint8_t dimensions, const TCounterIdx_t* indices) {
    if (dimensions > kMaxDim)
        throw std::out_of_range(kTooMany);
    // The indices may be this object's own.
    std::array<TCounterIdx_t, kMaxDim> fresh{};
    if (indices)
        std::copy_n(indices, dimensions, fresh.begin());
    m_indices = fresh;
    m_dimensions = dimensions;
    SetPacketHeaderLength();
}

unsigned CCounterIndexDimN::Byte2Dim(unsigned bytes) {
    if (bytes / 8 > kMaxDim)
        throw std::out_of_range(kTooMany);
    return bytes / 8;
}

unsigned CCounterValueVarPayload::Len2Size(std::uint8_t length) {
    if (length % 2 != 0)
        CQVXException::ThrowRuntime("Len2Size: supplied size must be multiples of two!");
    return length / 2U;
}

bool CCounterValueVarPayload::decode(const char* from, unsigned size) {
    const unsigned width = Len2Size(static_cast<std::uint8_t>(size));
    if (width > kMaxSize)
        return false;
    m_value = makeCounter(from, width);
    m_index = makeCounter(from + width, width);
    return true;
}

} // namespace Quorvex
