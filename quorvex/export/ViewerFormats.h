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
    std::string_view name;                 ///< by which people ask for it: "vcd"
    std::string_view description;          ///< "value change dump"
    std::vector<std::string_view> endings; ///< of names of such files, with their dots
    /// A writer of it to a stream, which must outlive it.
    std::unique_ptr<CViewerWriter> (*make)(std::ostream& out, const ViewerOptions& options);
    /// Of a format whose traces are directories, what stands in the file `metadata` beside that of the stream; else
    /// null. The writer is one that make() has made, and has written all.
    std::string (*metadata)(const CViewerWriter& writer) = nullptr;

    /// The kinds of packet that are shown, or whose names are; of the kinds that define something or happen, all others
    /// are counted as lost.
    QUORVEX_API std::vector<tagTCode> shownKinds() const;
};

/// All formats there are. Valid for ever.
QUORVEX_API const std::vector<ViewerFormat>& viewerFormats();

/// The format that files with the ending of that name are in; null if none tells.
QUORVEX_API const ViewerFormat* viewerFormatOf(std::string_view file);

} // namespace Quorvex
