// Counts the words of the text files below a directory with several threads, and records every one of its functions on
// the way: each thread leaves a trace file of its own.
//
//     wordcount DIRECTORY [THREADS]

#include "quorvex/quorvex.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using Counts = std::unordered_map<std::string, std::size_t>;
using Ranking = std::vector<std::pair<std::string, std::size_t>>;

std::vector<std::filesystem::path> findFiles(const std::filesystem::path& directory) {
    QUORVEX_TRACE_FUNCTION();
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        const std::string extension = entry.path().extension().string();
        if (entry.is_regular_file() && (extension == ".h" || extension == ".cpp" || extension == ".md"))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string readFile(const std::filesystem::path& path) {
    QUORVEX_TRACE_FUNCTION();
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void countLine(const std::string& text, std::size_t from, std::size_t to, Counts& counts) {
    QUORVEX_TRACE_FUNCTION();
    std::string word;
    for (std::size_t at = from; at <= to; ++at) {
        if (at < to && std::isalpha(static_cast<unsigned char>(text[at]))) {
            word += text[at];
        } else if (!word.empty()) {
            ++counts[word];
            word.clear();
        }
    }
}

void countFile(const std::filesystem::path& path, Counts& counts) {
    QUORVEX_TRACE_FUNCTION();
    const std::string text = readFile(path);
    for (std::size_t from = 0; from < text.size();) {
        const std::size_t to = std::min(text.find('\n', from), text.size());
        countLine(text, from, to, counts);
        from = to + 1;
    }
}

/// Counts every `step`th file, from `first` on.
void work(const std::vector<std::filesystem::path>& files, std::size_t first, std::size_t step, Counts& counts) {
    QUORVEX_TRACE_FUNCTION();
    for (std::size_t file = first; file < files.size(); file += step)
        countFile(files[file], counts);
}

Ranking rank(const std::vector<Counts>& parts) {
    QUORVEX_TRACE_FUNCTION();
    std::map<std::string, std::size_t> sum;
    {
        QUORVEX_TRACE_SCOPE("add up");
        for (const Counts& counts : parts) {
            for (const auto& [word, count] : counts)
                sum[word] += count;
        }
    }
    Ranking ranking(sum.begin(), sum.end());
    QUORVEX_TRACE_SCOPE("sort");
    std::stable_sort(ranking.begin(), ranking.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    return ranking;
}

void run(const std::filesystem::path& directory, std::size_t threadCount) {
    QUORVEX_TRACE_FUNCTION();
    const auto files = findFiles(directory);
    std::vector<Counts> parts(threadCount);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < threadCount; ++i)
        threads.emplace_back([&, i] { work(files, i, threadCount, parts[i]); });
    for (std::thread& thread : threads)
        thread.join();
    const Ranking ranking = rank(parts);
    std::cout << files.size() << " files, " << ranking.size() << " different words; the most frequent:\n";
    for (std::size_t i = 0; i < std::min<std::size_t>(5, ranking.size()); ++i)
        std::cout << "  " << ranking[i].first << ' ' << ranking[i].second << '\n';
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        std::cerr << "usage: wordcount DIRECTORY [THREADS]\n";
        return 2;
    }
    try {
        run(argv[1], argc > 2 ? std::max<std::size_t>(1, std::strtoul(argv[2], nullptr, 10)) : 2);
    } catch (const std::exception& error) {
        std::cerr << "wordcount: " << error.what() << '\n';
        return 1;
    }
    // Whatever went wrong with the recording stands in the library's log.
    if (CMessageQueue::g_Instance->size() > 0)
        std::cerr << "wordcount: not all could be recorded\n";
}
