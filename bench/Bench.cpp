// The hot paths beside the machine's own limits, in one run: only ratios between rows of the same run mean anything.
// With --table the medians of repeated runs are printed as a table in Markdown.

#include "bench/Paths.h"
#include "bench/Traces.h"
#include "quorvex/quorvex.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

namespace {

using namespace Quorvex;
namespace fs = std::filesystem;

constexpr unsigned kTracePackets = 200'000;
constexpr unsigned kBatch = 10'000;
constexpr unsigned kProgramPackets = 1'000'000;

fs::path directory; ///< for traces

void tell(benchmark::State& state, double bytes, const char* description) {
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * bytes));
    state.SetLabel(description);
}

void runPath(benchmark::State& state, const bench::PathRow& row) {
    const std::unique_ptr<bench::Path> path = row.make(kTracePackets);
    while (state.KeepRunningBatch(kBatch))
        path->run(kBatch);
    tell(state, path->bytes(), row.description);
}

/// Function enters in a thread whose trace goes to a file, with what the system takes to store it.
void recordEnterToFile(benchmark::State& state) {
    std::string path;
    std::thread([&] {
        CQVXInstrumentingStream* stream = CQVXInstrumentingStream::get_Instance();
        path = stream->path();
        for (auto _ : state) {
            CFunctionEnter enter(stream->Context(), 7);
            stream->put(&enter);
        }
    }).join();
    tell(state, 0, "a function enter to a file, with what the system takes to store it");
    // Its blocks are given back, or what the disk has to store slows down the next row.
    fs::resize_file(path, 0);
}

/// The program over one of the inputs that makeInputs makes; its output goes to the null device, if that can be.
struct ProgramRow {
    const char* name;
    const char* arguments; ///< before the input
    const char* input;
    const char* description;
    const char* written = nullptr; ///< where what it writes goes, if its rate is that of this
    const char* output = "/dev/null";
};

constexpr ProgramRow kProgram[] = {
    {"qvx/info", "info", "calls.qvx", "`qvx info`, function enters and leaves"},
    {"qvx/dump", "dump", "calls.qvx", "`qvx dump` of the same"},
    {"qvx/export/vcd", "export --to vcd", "calls.qvx", "`qvx export --to vcd`", "out"},
    {"qvx/export/btf", "export --to btf", "calls.qvx", "`qvx export --to btf`", "out"},
    {"qvx/export/perfetto", "export --to perfetto", "calls.qvx", "`qvx export --to perfetto`", "out"},
    {"qvx/export/chrome", "export --to chrome", "calls.qvx", "`qvx export --to chrome`", "out"},
    {"qvx/export/speedscope", "export --to speedscope", "calls.qvx", "`qvx export --to speedscope`", "out"},
    {"qvx/export/ctf", "export --to ctf", "calls.qvx", "`qvx export --to ctf`", "out.ctf", "out.ctf"},
    {"qvx/export/folded", "export --to folded", "calls.qvx", "`qvx export --to folded`"},
    {"qvx/export/csv", "export --to csv", "calls.qvx", "`qvx export --to csv`", "out"},
    {"qvx/export/json", "export --to json", "calls.qvx", "`qvx export --to json`", "out"},
    {"qvx/relative", "convert --relative", "steps.qvx", "`qvx convert --relative`, instructions"},
    {"qvx/absolute", "convert --absolute", "relative.qvx", "`qvx convert --absolute` of the result"},
    {"qvx/table", "convert", "table.txt", "`qvx convert` of a parsable table of the calls"},
};

void qvx(const std::string& arguments, const std::string& input, const std::string& output) {
    const std::string command =
        "cd '" + directory.string() + "' && '" QUORVEX_QVX "' " + arguments + " " + input + " -o " + output;
    if (std::system((command + " 2>/dev/null").c_str()) != 0)
        throw std::runtime_error("this fails: " + command);
}

void makeInputs() {
    {
        CTraceFileWriterPaged calls((directory / "calls.qvx").string());
        bench::forCallPackets(kProgramPackets, [&](CPacket& packet) { calls.put(&packet); });
        CTraceFileWriterPaged steps((directory / "steps.qvx").string());
        for (unsigned i = 0; i < kProgramPackets; ++i) {
            CExecInsn step = bench::stepOf(i);
            steps.put(&step);
        }
    }
    qvx("convert --relative", "steps.qvx", "relative.qvx");
    qvx("dump --parsable", "calls.qvx", "table.txt");
}

/// Bytes of a file, or of all in a directory.
double sizeOf(const fs::path& path) {
    double size = 0;
    if (!fs::is_directory(path))
        return static_cast<double>(fs::file_size(path));
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
        size += static_cast<double>(entry.file_size());
    return size;
}

/// One run a repetition, told as the time of a packet.
void runProgram(benchmark::State& state, const ProgramRow& row) {
    if (!fs::exists(directory / row.input))
        makeInputs();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        qvx(row.arguments, row.input, row.output);
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(time.count() / kProgramPackets);
    }
    if (row.written && !fs::exists(directory / row.written))
        qvx(row.arguments, row.input, row.written);
    tell(state, sizeOf(directory / (row.written ? row.written : row.input)) / kProgramPackets, row.description);
    if (row.written)
        fs::remove_all(directory / row.written);
}

/// Prints the medians of repeated runs as a table.
class TableReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override {
        GetOutputStream() << "| row | ns | MB/s | what it is |\n|---|---|---|---|" << std::endl;
        return true;
    }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name != "median")
                continue;
            char figures[64];
            const double rate = run.counters.at("bytes_per_second") / 1e6;
            std::snprintf(figures, sizeof figures, rate > 0 ? "%.*f | %.0f" : "%.*f |", run.GetAdjustedRealTime() < 100,
                          run.GetAdjustedRealTime(), rate);
            GetOutputStream() << "| " << run.run_name.function_name << " | " << figures << " | " << run.report_label
                              << " |" << std::endl;
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const bool asTable = argc == 2 && std::string_view(argv[1]) == "--table";
    if (!asTable && benchmark::ReportUnrecognizedArguments(argc, argv))
        return EXIT_FAILURE;
    directory = fs::temp_directory_path() / ("quorvex_bench_" + std::to_string(platform::currentThreadId()));
    fs::create_directory(directory);
    setenv("QVX_TRACEDIR", directory.c_str(), 1);
    unsetenv("QVX_TRACEFILENAME");

    for (const bench::PathRow& row : bench::paths())
        benchmark::RegisterBenchmark(row.name, runPath, row)->UseRealTime();
    benchmark::RegisterBenchmark("recordEnterToFile", recordEnterToFile)->Iterations(2'000'000)->UseRealTime();
    for (const ProgramRow& row : kProgram)
        benchmark::RegisterBenchmark(row.name, runProgram, row)->Iterations(1)->UseManualTime();

    TableReporter table;
    int result = EXIT_SUCCESS;
    try {
        benchmark::RunSpecifiedBenchmarks(asTable ? &table : nullptr);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        result = EXIT_FAILURE;
    }
    fs::remove_all(directory);
    return result;
}
