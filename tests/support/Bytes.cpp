#include "tests/support/Bytes.h"

#include "quorvex/format/MessageQueue.h"

#include <cctype>
#include <stdexcept>

namespace Quorvex::test {

std::string bytes(const std::string& text) {
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (!std::isxdigit(static_cast<unsigned char>(text[at])))
            continue;
        if (at + 1 == text.size() || !std::isxdigit(static_cast<unsigned char>(text[at + 1])))
            throw std::invalid_argument("half a byte in: " + text);
        result += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
        ++at;
    }
    return result;
}

std::string hex(const std::string& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string result;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        result += {kDigits[value >> 4], kDigits[value & 15], ' '};
    }
    if (!result.empty())
        result.pop_back();
    return result;
}

std::string takeLog() {
    std::string texts;
    while (const auto message = CMessageQueue::g_Instance->pop()) {
        if (message->Level() == MessageLevelTrace)
            continue;
        for (unsigned i = 0; i < message->Message().Length(); ++i)
            texts += static_cast<char>(message->Message().m_str[i]);
        texts += '\n';
    }
    return texts;
}

std::string thrownBy(const std::function<void()>& step) {
    try {
        step();
        return {};
    } catch (const std::exception& exception) {
        return exception.what();
    }
}

} // namespace Quorvex::test
