#include "Output.h"

#include "Verbs.h"
#include "quorvex/platform/System.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iostream>

namespace qvx {

void Output::addOptions(CLI::App& verb, bool required) {
    auto* path =
        verb.add_option("-o,--output", m_path,
                        required ? "Write to FILE; - for standard output" : "Write to FILE instead of standard output");
    path->type_name("FILE")->required(required);
    verb.add_flag("-f,--force", m_force, "Overwrite FILE if it exists");
}

std::ostream& Output::open() {
    if (m_path == "-")
        return std::cout;
    if (!m_force && std::filesystem::exists(m_path))
        throw Failure(m_path, "exists; use --force to overwrite it");
    const std::string temporary = m_path + ".part";
    errno = 0;
    m_file.open(temporary, std::ios::binary | std::ios::trunc);
    if (!m_file.is_open())
        throw Failure(temporary, Quorvex::platform::errorText(errno));
    m_temporary = temporary;
    return m_file;
}

void Output::check() const {
    const bool good = isFile() ? m_file.good() : std::cout.good();
    if (!good)
        throw Failure(isFile() ? m_temporary : "standard output", Quorvex::platform::errorText(errno ? errno : EIO));
}

void Output::commit() {
    errno = 0;
    if (!isFile()) {
        if (!std::cout.flush())
            throw Failure("standard output", Quorvex::platform::errorText(errno));
        return;
    }
    m_file.close();
    if (m_file.fail())
        throw Failure(m_temporary, Quorvex::platform::errorText(errno));
    std::error_code error;
    std::filesystem::rename(m_temporary, m_path, error);
    if (error)
        throw Failure(m_path, error.message());
    m_temporary.clear();
}

Output::~Output() {
    if (!isFile())
        return;
    m_file.close();
    std::remove(m_temporary.c_str());
}

} // namespace qvx
