#include "quorvex/format/Exception.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

namespace Quorvex {

struct CQVXException::Row {
    const char* text; ///< null: the exception's own text
    HRESULT result;
};

namespace {

char* duplicateText(const char* text) noexcept {
    if (!text)
        return nullptr;
    const std::size_t size = std::strlen(text) + 1;
    char* copy = new (std::nothrow) char[size];
    if (copy)
        std::memcpy(copy, text, size);
    return copy;
}

} // namespace

CQVXException::CQVXException(int code, const char* text) noexcept : m_code(code), m_text(duplicateText(text)) {}

CQVXException::CQVXException(const CQVXException& other) noexcept
    : std::exception(other), m_code(other.m_code), m_text(duplicateText(other.m_text)) {}

CQVXException& CQVXException::operator=(const CQVXException& other) noexcept {
    if (this != &other) {
        m_code = other.m_code;
        delete[] std::exchange(m_text, duplicateText(other.m_text));
    }
    return *this;
}

CQVXException::~CQVXException() {
    static_cast<volatile int&>(m_code) = Unknown; // reaches memory, though the object's life ends
    delete[] m_text;
}

const CQVXException::Row& CQVXException::row() const noexcept {
    static constexpr Row kRows[] = {
        {nullptr, E_FAIL},
        {"There is not enough memory available.", E_OUTOFMEMORY},
        {"There is not enough space on the disk.", kDiskFullResult},
        {nullptr, E_UNEXPECTED},
        {"Invalid pointer supplied.", E_POINTER},
        {"Invalid exception identifier.", E_FAIL},
    };
    return kRows[m_code >= 0 && m_code < Unknown ? m_code : Unknown];
}

const char* CQVXException::what() const noexcept {
    const char* text = row().text;
    return text ? text : m_text;
}

void CQVXException::ThrowRuntime(const char* text) {
    throw CQVXException(Runtime, text);
}

void CQVXException::ThrowOutOfMemory() {
    throw CQVXException(OutOfMemory);
}

void CQVXException::ThrowDiskFull() {
    throw CQVXException(DiskFull);
}

void CQVXException::ThrowReadConstructor(const char* text) {
    throw CQVXException(ReadConstructor, text);
}

void CQVXException::ThrowInvalidPointer() {
    throw CQVXException(InvalidPointer);
}

void CQVXException::ThrowFromHResult(long result) {
    switch (static_cast<std::uint32_t>(result)) {
    case static_cast<std::uint32_t>(E_POINTER):
        ThrowInvalidPointer();
    case static_cast<std::uint32_t>(E_OUTOFMEMORY):
        ThrowOutOfMemory();
    case static_cast<std::uint32_t>(kDiskFullResult):
        ThrowDiskFull();
    default:
        return;
    }
}

void CQVXException::ThrowHResult(HRESULT failure) {
    ThrowFromHResult(failure);
    throw CQVXException(FAILED(failure) ? static_cast<int>(failure) : Unknown);
}

HRESULT CQVXException::HResultFromException(const CQVXException& exception) {
    return FAILED(exception.m_code) ? static_cast<HRESULT>(exception.m_code) : exception.row().result;
}

bool isOutOfMemory(const std::exception& exception) {
    const auto* own = dynamic_cast<const CQVXException*>(&exception);
    return own ? CQVXException::HResultFromException(*own) == E_OUTOFMEMORY
               : dynamic_cast<const std::bad_alloc*>(&exception) != nullptr;
}

} // namespace Quorvex
