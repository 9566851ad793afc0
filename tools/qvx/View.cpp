#include "Arguments.h"
#include "Inputs.h"
#include "PageServer.h"
#include "TrackAnswers.h"
#include "TrackIndex.h"
#include "Verbs.h"
#include "Work.h"
#include "quorvex/analysis/Sha256.h"
#include "quorvex/platform/OutputFile.h"
#include "quorvex/platform/System.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

constexpr std::chrono::seconds kPatience{3}; ///< for a page that is loaded again

struct ViewOptions {
    Inputs inputs;
    std::string title;
    bool noBrowser = false;
    bool stays = false;
};

/// What an index is of: it is made again when something of that has changed.
std::string keyOf(const std::vector<std::string>& files, const ViewOptions& options) {
    std::string key = QVX_VERSION "\n" + options.title + '\n';
    for (const std::string& name : options.inputs.given())
        key += name + '\n';
    for (const std::string& file : files) {
        for (const std::string& path : {file, file + ".page"}) { // the end of one that is being recorded
            std::error_code missing;
            const std::uintmax_t size = std::filesystem::file_size(path, missing);
            const auto time = std::filesystem::last_write_time(path, missing);
            if (!missing)
                key += fmt::format("{} {} {}\n", platform::absolutePath(path), size, time.time_since_epoch().count());
        }
    }
    return key;
}

/// The directory for what programs keep for a while.
std::string cacheDirectory() {
    std::string directory = platform::environment("XDG_CACHE_HOME");
    if (directory.empty()) {
        const std::string home = platform::environment("HOME");
        directory = home.empty() ? platform::temporaryDirectory() : home + "/.cache";
    }
    return directory + "/qvx";
}

/// Where the index of traces may be, the better place first.
std::vector<std::string> placesOf(const std::string& file) {
    const std::string path = platform::absolutePath(file);
    Sha256 digest;
    digest.add(path);
    std::string name;
    for (const unsigned char byte : digest.finish())
        name += fmt::format("{:02x}", byte);
    return {path + ".view", cacheDirectory() + '/' + name + ".view"};
}

ExitCode makeIndex(TrackIndex& index, const std::vector<std::string>& files, const ViewOptions& options) {
    const std::string key = keyOf(files, options);
    const std::vector<std::string> places = placesOf(files.front());
    if (std::ranges::any_of(places, [&](const std::string& place) { return index.open(place, key); }))
        return Done;
    for (const std::string& file : files)
        Work::now().expect(file);
    int error = 0;
    for (const std::string& place : places) {
        const std::string directory = std::filesystem::path(place).parent_path().string();
        std::error_code failed;
        std::filesystem::create_directories(directory, failed);
        platform::OutputFile file;
        if (!TrackIndex::canReplace(place) || !file.create(directory)) {
            error = file.error();
            continue;
        }
        TrackIndexWriter writer(files, file, Work::now().jobs() != 1);
        const ExitCode exitCode = writer.read();
        if (!writer.finish(options.title, options.inputs.given(), key) || !file.place(place, true))
            throw Failure(place, platform::errorText(file.error()));
        // Who may read the traces may read what is in them, and nobody else.
        std::filesystem::perms readers = std::filesystem::perms(0666);
        for (const std::string& its : files)
            readers &= std::filesystem::status(its, failed).permissions();
        std::filesystem::permissions(place, readers, failed);
        Work::now().makeRoom();
        if (!index.open(place, key))
            throw Failure(place, "somebody else has changed it");
        return exitCode;
    }
    throw Failure(places.front(), platform::errorText(error));
}

ExitCode view(const ViewOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    if (std::ranges::count(files, "-") > 0)
        throw Misuse("FILES", "standard input cannot be read again");
    TrackIndex index;
    const ExitCode exitCode = makeIndex(index, files, options);
    const TrackAnswers answers(index);
    PageServer server(answers);
    const std::string address = server.address();
    std::printf("%s\n", address.c_str());
    std::fflush(stdout);
    if (!options.noBrowser && std::system(("(xdg-open '" + address + "' </dev/null >/dev/null 2>&1) &").c_str()) != 0)
        tell("no browser can be opened; the address is above");
    do
        server.waitForEnd(kPatience);
    while (options.stays);
    return exitCode;
}

} // namespace

void addView(Program& program) {
    auto options = std::make_shared<ViewOptions>();
    Verb verb = program.add("view", "Show traces of any size in the browser");
    options->inputs.addTo(verb, "Traces, or directories of *.qvx");
    verb.option("--title", options->title, "What the page is called, in place of the first file", "TEXT");
    verb.flag("--no-browser", options->noBrowser, "Open no browser: the address is written to standard output");
    verb.flag("--stay", options->stays, "Go on when the page has been closed");
    verb.footer(
        "Example: qvx view traces\n"
        "The page is that of qvx report, and asks qvx for what it shows. For that an index of the traces is made "
        "once,\n"
        "FILE.view beside the first of them, or where the directory cannot be written in ~/.cache/qvx. It can be "
        "thrown\n"
        "away. Only this machine is answered, and only who has the address. It ends with the page, or with Ctrl-C.");
    verb.runs([options] { return view(*options); });
}

} // namespace qvx
