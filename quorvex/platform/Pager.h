#pragma once

#include "quorvex/platform/Export.h"

#include <string>

namespace Quorvex::platform {

/// Another program that shows what this one writes on its standard output, a screen at a time. On systems without such
/// programs nothing happens. One thread at a time.
class QUORVEX_API Pager {
public:
    Pager() = default;
    Pager(const Pager&) = delete;
    Pager& operator=(const Pager&) = delete;
    /// Ends the standard output of this process if start() has succeeded, and waits until the user has seen enough.
    ~Pager();

    /// Starts the program by a shell's command, which reads what is written to standard output from now on. False, with
    /// all as it was, where that is not possible.
    bool start(const std::string& command);

private:
    long m_process = 0;
};

} // namespace Quorvex::platform
