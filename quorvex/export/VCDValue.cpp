#include "quorvex/export/VCDValue.h"

#include "quorvex/format/Exception.h"
#include "quorvex/format/MessageQueue.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <new>
#include <ostream>
#include <string>
#include <utility>

namespace Quorvex {

namespace {

/// The states in the order of their packed codes.
constexpr tagVCDValueData kStates[] = {VCDZero, VCDOne, VCDUnknown, VCDHighImpedance};

unsigned codeOf(tagVCDValueData state) {
    const auto* last = std::prev(std::end(kStates));
    return static_cast<unsigned>(std::find(std::begin(kStates), last, state) - kStates);
}

constexpr tagVCDValueData stateOf(bool bit) {
    return bit ? VCDOne : VCDZero;
}

constexpr unsigned kMaxReal = 32; // the longest is "R-1.797693134862316e+308 "

std::uint64_t textLength(const CVCDVectorValue& value) {
    return value.getSize() == 0 ? 0 : std::uint64_t{value.getSize()} + 2;
}

template <class Value> std::shared_ptr<const IVCDValue> shared(Value value) {
    try {
        return std::make_shared<const Value>(std::move(value));
    } catch (const std::bad_alloc&) {
        CQVXException::ThrowOutOfMemory();
    }
}

} // namespace

IVCDValue::~IVCDValue() = default;

unsigned CVCDSingleValue::write(CBufferHelper<char>& out) const {
    return out.append(m_state) ? 1 : 0;
}

template <class StateAt> void CVCDVectorValue::pack(unsigned count, StateAt&& stateAt) {
    try {
        std::vector<std::uint8_t> packed(LenToByte(count));
        for (unsigned i = 0; i < count; ++i)
            packed[i / 4] = static_cast<std::uint8_t>(packed[i / 4] | codeOf(stateAt(i)) << 2 * (i % 4));
        m_packed = std::move(packed);
        m_size = count;
    } catch (const std::bad_alloc&) {
        CQVXException::ThrowOutOfMemory();
    }
}

CVCDVectorValue::CVCDVectorValue(const tagVCDValueData* states, unsigned count) : IVCDValue(VCDVector), m_size(count) {
    if (states)
        pack(count, [states](unsigned i) { return states[i]; });
}

CVCDVectorValue::CVCDVectorValue(const unsigned char* bytes, unsigned bits) : IVCDValue(VCDVector), m_size(bits) {
    if (bytes)
        pack(bits, [bytes](unsigned i) { return stateOf(bytes[i / 8] >> i % 8 & 1); });
}

CVCDVectorValue::CVCDVectorValue(const CSignalMask& values) : CVCDVectorValue(values.data(), values.bits()) {}

CVCDVectorValue::CVCDVectorValue(const CSignalMask& values, const CSignalMask& validity)
    : IVCDValue(VCDVector), m_size(0) {
    assign(values, validity);
}

CVCDVectorValue& CVCDVectorValue::operator=(const CSignalMask& values) {
    return *this = CVCDVectorValue(values);
}

void CVCDVectorValue::assign(const CSignalMask& values, const CSignalMask& validity) {
    pack(values.bits(), [&](unsigned i) {
        const bool valid = i < validity.bits() && validity.test(i);
        return valid ? stateOf(values.test(i)) : VCDUnknown;
    });
}

tagVCDValueData CVCDVectorValue::getData(unsigned index) const {
    if (index >= m_size || m_packed.empty())
        return VCDHighImpedance;
    return kStates[m_packed[index / 4] >> 2 * (index % 4) & 3];
}

unsigned CVCDVectorValue::write(CBufferHelper<char>& out) const {
    const std::uint64_t length = textLength(*this);
    char* to = length > 0 ? out.claim(length) : nullptr;
    if (!to)
        return 0;
    *to++ = 'B';
    for (unsigned i = m_size; i > 0; --i)
        *to++ = getData(i - 1);
    *to = ' ';
    return static_cast<unsigned>(length);
}

unsigned CVCDRealValue::write(CBufferHelper<char>& out) const {
    char text[kMaxReal] = {'R'};
    // Not by printf, which would write the decimal point of the user's locale.
    char* end = std::to_chars(text + 1, std::end(text), m_value, std::chars_format::general, 16).ptr;
    *end++ = ' ';
    const auto length = static_cast<unsigned>(end - text);
    return out.append({text, length}) ? length : 0;
}

CVCDValue::CVCDValue(const CVCDSingleValue& value) : m_value(shared(value)) {}

CVCDValue::CVCDValue(CVCDVectorValue value) : m_value(shared(std::move(value))) {}

CVCDValue::CVCDValue(const CVCDRealValue& value) : m_value(shared(value)) {}

tagVCDType CVCDValue::GetType() const {
    return m_value ? m_value->getType() : VCDNone;
}

unsigned CVCDValue::write(CBufferHelper<char>& out) const {
    return m_value ? m_value->write(out) : 0;
}

unsigned CVCDValue::write(char* buf, unsigned size) const {
    CBufferHelper<char> out(buf, size);
    return write(out);
}

bool CVCDValue::write(std::ostream& out) const {
    try {
        const bool isVector = GetType() == VCDVector;
        const std::uint64_t most = isVector ? textLength(static_cast<const CVCDVectorValue&>(*m_value)) : kMaxReal;
        std::string text(static_cast<unsigned>(most), '\0');
        const unsigned written = write(text.data(), static_cast<unsigned>(text.size()));
        return written != 0 && out.write(text.data(), written).good();
    } catch (const std::exception& exception) {
        logException("CVCDValue::write: Catched exception ", exception.what());
        return false;
    }
}

} // namespace Quorvex
