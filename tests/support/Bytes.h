#pragma once

#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace Quorvex::test {

/// Bytes from text such as "7f 18 | 01", in which everything but hexadecimal digits is a gap.
std::string bytes(const std::string& text);
/// The reverse: "7f 18 01".
std::string hex(const std::string& bytes);

/// A heap block of exactly the bytes, so that the address sanitizer sees one too many.
class ExactBlock {
public:
    explicit ExactBlock(const std::string& content) : m_block(new char[content.size()]), m_size(content.size()) {
        std::memcpy(m_block.get(), content.data(), content.size());
    }
    const char* data() const { return m_block.get(); }
    unsigned size() const { return static_cast<unsigned>(m_size); }

private:
    std::unique_ptr<char[]> m_block;
    std::size_t m_size;
};

/// Empties the message log and gives its texts, one a line. Trace messages are left out.
std::string takeLog();

/// The text of the exception that `step` throws; empty when it does not.
std::string thrownBy(const std::function<void()>& step);

} // namespace Quorvex::test
