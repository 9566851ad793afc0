#include "Symbols.h"

#include <fmt/format.h>

#include <map>

namespace qvx {

/// Where the libraries are missing that read files of code.
class Symbols::Code {
public:
    explicit Code(const std::string& path) : fileName(path.substr(path.rfind('/') + 1)) {}

    std::string fileName;
    std::string problem = "this qvx was built without elfutils, which reads symbols";
    std::map<std::uint64_t, Function> functions;
};

Symbols::Symbols(const std::string& path, std::string_view, const std::string&)
    : m_code(std::make_unique<Code>(path)) {}

Symbols::~Symbols() = default;

const Symbols::Function& Symbols::function(std::uint64_t address) {
    Function& function = m_code->functions[address];
    function.name = fmt::format("{}+{:#x}", m_code->fileName, address);
    return function;
}

std::vector<Symbols::Frame> Symbols::frames(std::uint64_t address) {
    return {{function(address).name, {}, 0}};
}

const std::string& Symbols::problem() const {
    return m_code->problem;
}

} // namespace qvx
