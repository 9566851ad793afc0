#pragma once

#include "quorvex/export/ViewerWriter.h"
#include "quorvex/platform/Export.h"

#include <memory>
#include <ostream>
#include <string_view>
#include <vector>

namespace Quorvex {

/// A format of other viewers that traces can be written in.
struct ViewerFormat {
    std::string_view name;        ///< by which people ask for it: "vcd"
    std::string_view description; ///< "value change dump"
    /// A writer of it to a stream, which must outlive it.
    std::unique_ptr<CViewerWriter> (*make)(std::ostream& out, const ViewerOptions& options);
};

/// All formats there are. Valid for ever.
QUORVEX_API const std::vector<ViewerFormat>& viewerFormats();

} // namespace Quorvex
