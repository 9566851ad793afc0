#include "TraceSinks.h"

#include "Output.h"
#include "Verbs.h"
#include "quorvex/analysis/TracePages.h"
#include "quorvex/platform/OutputFile.h"
#include "quorvex/stream/FileKind.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceCursor.h"
#include "quorvex/stream/TraceSinkBufferStream.h"

#include <fmt/format.h>

#include <fstream>
#include <ostream>

namespace qvx {

using namespace Quorvex;

namespace {

class SequentialSink : public CTraceSinkBufferStream {
public:
    using CTraceSinkBufferStream::CTraceSinkBufferStream;
    using CTraceSinkBufferStream::write;
    bool write(const char* bytes, unsigned count, std::uint64_t position, unsigned& written) override {
        written = 0;
        return position == tellp() && write(bytes, count, written);
    }
};

} // namespace

std::unique_ptr<CTraceSinkBuffer> makeSink(Target& target) {
    std::ostream& out = target.open();
    if (target.isFile())
        return std::make_unique<CTraceSinkBufferStream>(out);
    return std::make_unique<SequentialSink>(out);
}

bool isFileOfPages(const std::string& path) {
    if (path == "-" || platform::FileStatus::of(path).sort != platform::FileStatus::Regular)
        return false;
    std::string head(kPageSize, '\0');
    std::ifstream file(path, std::ios::binary);
    file.read(head.data(), kPageSize);
    head.resize(static_cast<std::size_t>(file.gcount()));
    return kindOfFile(head) == FileKind::Trace && TracePages(path).arePages();
}

bool LayoutSeen::look(const CTraceCursor& packet) {
    if (m_isKnown || packet.end() < kPageSize)
        return false;
    m_isKnown = true;
    m_isPaged = !pages::crossesEnd(packet.offset(), packet.end());
    return true;
}

void failToWrite(Target& target, const std::string& input, std::uint64_t offset) {
    target.finish();
    throw Failure(input, fmt::format("offset {}: a packet that does not fit a page of {} bytes with its text", offset,
                                     kPageSize));
}

} // namespace qvx
