#pragma once

#include "quorvex/export/BufferHelper.h"
#include "quorvex/packets/SignalMask.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <vector>

namespace Quorvex {

/// The state of one bit; each enumerator is its character.
enum tagVCDValueData : char { VCDZero = '0', VCDOne = '1', VCDUnknown = 'X', VCDHighImpedance = 'Z' };

/// The kinds of value.
enum tagVCDType : int {
    VCDSingle = 0,
    VCDVector = 1,
    VCDReal = 2,
    VCDNone = -1 ///< an empty CVCDValue
};

/// A value of a variable in a value change dump. It writes the first part of a value change, up to where the variable's
/// identifier follows:
///
///     single  "1"      the state
///     vector  "BX01 "  the letter, the states from the last to the first, a blank
///     real    "R0.5 "  the letter, the number with up to 16 significant digits, a blank
class QUORVEX_API IVCDValue {
public:
    virtual ~IVCDValue();
    /// Returns the characters written; 0, with nothing written, when they do not fit or there are none.
    virtual unsigned write(CBufferHelper<char>& out) const = 0;
    tagVCDType getType() const { return m_type; } ///< never VCDNone

protected:
    explicit IVCDValue(tagVCDType type) : m_type(type) {}
    IVCDValue(const IVCDValue&) = default;
    IVCDValue& operator=(const IVCDValue&) = default;

private:
    tagVCDType m_type;
};

/// The state of one bit.
class QUORVEX_API CVCDSingleValue : public IVCDValue {
public:
    explicit CVCDSingleValue(tagVCDValueData state) : IVCDValue(VCDSingle), m_state(state) {}
    explicit CVCDSingleValue(bool state) : CVCDSingleValue(state ? VCDOne : VCDZero) {}

    unsigned write(CBufferHelper<char>& out) const override;

private:
    tagVCDValueData m_state;
};

/// The states of several bits, bit 0 first. States from a null pointer are all high impedance. Where memory is short,
/// constructors and assignments throw the out-of-memory CQVXException; a failed assignment changes nothing.
class QUORVEX_API CVCDVectorValue : public IVCDValue {
public:
    /// States other than '0', '1' and 'X' count as 'Z'.
    CVCDVectorValue(const tagVCDValueData* states, unsigned count);
    /// `bits` bits, the lowest of each byte first.
    CVCDVectorValue(const unsigned char* bytes, unsigned bits);
    explicit CVCDVectorValue(const CSignalMask& values);
    CVCDVectorValue(const CSignalMask& values, const CSignalMask& validity);

    CVCDVectorValue& operator=(const CSignalMask& values);
    /// As many states as `values` has bits; one whose bit in `validity` is 0 or missing is unknown.
    void assign(const CSignalMask& values, const CSignalMask& validity);

    unsigned getSize() const { return m_size; } ///< number of bits
    /// The state of a bit; high impedance beyond the last.
    tagVCDValueData getData(unsigned index) const;
    tagVCDValueData operator[](unsigned index) const { return getData(index); }

    unsigned write(CBufferHelper<char>& out) const override;

    /// Bytes that hold `count` states: four in each.
    static constexpr unsigned LenToByte(unsigned count) { return count / 4 + (count % 4 != 0); }

private:
    template <class StateAt> void pack(unsigned count, StateAt&& stateAt);

    /// State i stands in byte i / 4 from bit 2 * (i mod 4) on, as 0, 1, 2 for 'X' or 3 for 'Z'. Empty when all are 'Z'
    /// for want of a source.
    std::vector<std::uint8_t> m_packed;
    unsigned m_size;
};

/// A number.
class QUORVEX_API CVCDRealValue : public IVCDValue {
public:
    explicit CVCDRealValue(double value) : IVCDValue(VCDReal), m_value(value) {}

    unsigned write(CBufferHelper<char>& out) const override;

private:
    double m_value;
};

/// Holds a value of any kind, or none. Copies share it. Making one of a value throws the out-of-memory CQVXException
/// where memory is short.
class QUORVEX_API CVCDValue {
public:
    CVCDValue() = default;
    CVCDValue(const CVCDSingleValue& value);
    CVCDValue(CVCDVectorValue value);
    CVCDValue(const CVCDRealValue& value);

    tagVCDType GetType() const; ///< VCDNone without a value

    /// As IVCDValue::write; without a value there is nothing to write.
    unsigned write(CBufferHelper<char>& out) const;
    unsigned write(char* buf, unsigned size) const;
    bool write(std::ostream& out) const;

private:
    std::shared_ptr<const IVCDValue> m_value; ///< null when there is none
};

} // namespace Quorvex
