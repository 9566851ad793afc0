#include "Arguments.h"
#include "Inputs.h"
#include "Output.h"
#include "TraceInput.h"
#include "TraceSinks.h"
#include "Verbs.h"
#include "quorvex/analysis/TracePages.h"
#include "quorvex/analysis/TracePiece.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

struct CatOptions {
    Inputs inputs;
    Output output;
};

class Cat {
public:
    Cat(Target& target, const std::vector<std::string>& files)
        : m_target(target),
          m_files(files),
          m_areOfPages(std::ranges::all_of(files, isFileOfPages)),
          m_sink(makeSink(target)),
          m_piece(*m_sink, m_areOfPages || files.size() == 1) {}

    ExitCode run() {
        ExitCode exitCode = Done;
        for (const std::string& file : m_files) {
            if (const ExitCode its = m_areOfPages ? copy(file) : walk(file); its != Done)
                exitCode = its;
            if (&file != &m_files.back() || !m_isMissing)
                check(m_piece.endFrame(), file, 0);
        }
        check(m_piece.end(!m_isMissing), m_files.back(), 0);
        m_target.commit();
        tell(fmt::format("{} bytes -> {} bytes", m_read, m_piece.position()));
        return exitCode;
    }

private:
    ExitCode copy(const std::string& file) {
        TracePages pages(file);
        if (!pages.copyTo(m_piece, 0, pages.size(), CContexts(), TraceFrame()))
            check(false, file, pages.stoppedAt());
        m_read += pages.size();
        m_isMissing = m_piece.isInFrame() && !pages.isRecording();
        return reportDamage(pages, m_isMissing);
    }

    ExitCode walk(const std::string& file) {
        TraceInput input(file);
        LayoutSeen layout;
        while (input.advance()) {
            if (m_files.size() == 1 && layout.look(input.cursor()))
                m_piece.layOut(layout.isPaged());
            check(m_piece.put(input.cursor()), file, input.cursor().offset());
        }
        m_read += input.size();
        m_isMissing = input.report().end >= TraceEnd::Missing;
        return input.reportDamage();
    }

    void check(bool isDone, const std::string& file, std::uint64_t offset) {
        if (!isDone)
            failToWrite(m_target, file, offset);
    }

    Target& m_target;
    const std::vector<std::string>& m_files;
    bool m_areOfPages;
    std::unique_ptr<CTraceSinkBuffer> m_sink;
    TracePiece m_piece;
    std::uint64_t m_read = 0;
    bool m_isMissing = false; ///< the end of the last trace so far
};

ExitCode cat(CatOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    options.output.check(files);
    return Cat(options.output.target(), files).run();
}

} // namespace

void addCat(Program& program) {
    auto options = std::make_shared<CatOptions>();
    Verb verb = program.add("cat", "Join traces, one behind the other");
    options->inputs.addTo(verb);
    options->output.addOptions(verb, true);
    verb.footer("Example: qvx cat day1.qvx day2.qvx -o both.qvx\n"
                "The result has pages if all traces have. qvx merge puts packets in the order of their ticks.");
    verb.runs([options] { return cat(*options); });
}

} // namespace qvx
