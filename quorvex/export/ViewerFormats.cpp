#include "quorvex/export/ViewerFormats.h"

#include "quorvex/export/BtfWriter.h"
#include "quorvex/export/VCDWriter.h"

namespace Quorvex {

namespace {

template <class Writer> std::unique_ptr<CViewerWriter> make(std::ostream& out, const ViewerOptions& options) {
    return std::make_unique<Writer>(out, options);
}

} // namespace

const std::vector<ViewerFormat>& viewerFormats() {
    static const std::vector<ViewerFormat> kFormats{
        {"vcd", "value change dump", make<CVCDWriter>},
        {"btf", "best trace format", make<CBtfWriter>},
    };
    return kFormats;
}

} // namespace Quorvex
