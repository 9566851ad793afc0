#include "quorvex/platform/Bstr.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <limits>

#if !defined(_WIN32)

namespace {

constexpr unsigned kPrefix = sizeof(std::uint32_t);
/// The most bytes of a text: with prefix and terminator they are counted in 32 bits, which also is all of some
/// memories.
constexpr std::uint64_t kMostBytes = std::numeric_limits<std::uint32_t>::max() - kPrefix - sizeof(wchar_t);

BSTR allocate(const void* bytes, std::uint64_t count) {
    // The prefix sits right before the text, which itself must be aligned for wide characters.
    static_assert(alignof(wchar_t) <= kPrefix);
    if (count > kMostBytes)
        return nullptr;
    const std::uint32_t prefix = static_cast<std::uint32_t>(count);
    char* block = static_cast<char*>(std::calloc(1, kPrefix + std::size_t{prefix} + sizeof(wchar_t)));
    if (!block)
        return nullptr;
    std::memcpy(block, &prefix, kPrefix);
    if (bytes)
        std::memcpy(block + kPrefix, bytes, prefix);
    return reinterpret_cast<BSTR>(block + kPrefix);
}

} // namespace

BSTR SysAllocStringLen(const wchar_t* text, unsigned count) {
    return allocate(text, std::uint64_t{count} * sizeof(wchar_t));
}

BSTR SysAllocStringByteLen(const char* bytes, unsigned count) {
    return allocate(bytes, count);
}

void SysFreeString(BSTR text) {
    if (text)
        std::free(reinterpret_cast<char*>(text) - kPrefix);
}

unsigned SysStringByteLen(BSTR text) {
    std::uint32_t count = 0;
    if (text)
        std::memcpy(&count, reinterpret_cast<const char*>(text) - kPrefix, kPrefix);
    return count;
}

unsigned SysStringLen(BSTR text) {
    return SysStringByteLen(text) / static_cast<unsigned>(sizeof(wchar_t));
}

#endif

#if !(defined(_MSC_VER) && __has_include(<atlbase.h>))
namespace ATL {

static BSTR allocated(BSTR text) {
    if (!text)
        throw CAtlException(E_OUTOFMEMORY);
    return text;
}

static BSTR allocated(const wchar_t* text, std::size_t length) {
    const bool tellable = length <= std::numeric_limits<unsigned>::max();
    return allocated(tellable ? SysAllocStringLen(text, static_cast<unsigned>(length)) : nullptr);
}

CAtlException::~CAtlException() = default;

CComBSTR::CComBSTR(const wchar_t* text) {
    if (text)
        m_str = allocated(text, std::wcslen(text));
}

CComBSTR::CComBSTR(const char* text) {
    if (!text)
        return;
    const std::size_t length = std::strlen(text);
    m_str = allocated(nullptr, length);
    for (std::size_t i = 0; i < length; ++i)
        m_str[i] = static_cast<wchar_t>(static_cast<unsigned char>(text[i]));
}

CComBSTR::CComBSTR(int length, const wchar_t* text) : m_str(allocated(text, static_cast<unsigned>(length))) {}

CComBSTR::CComBSTR(const CComBSTR& other) : m_str(other.Copy()) {}

BSTR CComBSTR::Copy() const {
    return m_str ? allocated(SysAllocStringByteLen(reinterpret_cast<const char*>(m_str), ByteLength())) : nullptr;
}

void CComBSTR::Attach(BSTR text) {
    SysFreeString(std::exchange(m_str, text));
}

bool CComBSTR::operator==(const CComBSTR& other) const {
    const unsigned size = ByteLength();
    return size == other.ByteLength() && (size == 0 || std::memcmp(m_str, other.m_str, size) == 0);
}

} // namespace ATL
#endif
