#include "quorvex/export/ViewerFormats.h"

#include "quorvex/export/BtfWriter.h"
#include "quorvex/export/VCDWriter.h"

#include <type_traits>

namespace Quorvex {

namespace {

template <class Writer> std::unique_ptr<CViewerWriter> make(std::ostream& out, const std::string& inputs) {
    if constexpr (std::is_constructible_v<Writer, std::ostream&, const std::string&>)
        return std::make_unique<Writer>(out, inputs);
    else
        return std::make_unique<Writer>(out);
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
