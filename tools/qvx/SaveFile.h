#pragma once

#include "quorvex/export/VCDWriter.h"

#include <string>

namespace qvx {

/// Writes what sets GTKWave up to show a dump: its most telling variables, with names in the place of numbers. The
/// names stand in files beside it, `path` followed by what they name. Throws Failure.
void writeSaveFile(const std::string& path, const std::string& dump, const Quorvex::CVCDWriter& writer, bool force);

} // namespace qvx
