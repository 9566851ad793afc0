#include "Symbols.h"

#include "FunctionIds.h"
#include "tests/tools/BuiltProgram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace Quorvex::test {

namespace {

using qvx::Symbols;

const std::string kSource = BuiltProgram::source();

std::vector<std::string> linesOf(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines(1); // they count from 1
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

/// Whether a line of the source has that name for a function. Compilers call functions without names differently.
bool hasName(const std::string& line, std::string name) {
    for (const std::string_view unnamed : {"{lambda(int)#1}", "$_0", "'lambda'(int)"}) {
        if (const std::size_t at = name.find(unnamed); at != std::string::npos)
            name.replace(at, unnamed.size(), "{lambda}");
    }
    return line.ends_with(" //= " + name);
}

enum class Knows { All, Names, NoInlined, Nothing };

struct Way {
    const char* compiler;
    const char* afterwards = "true"; ///< a command
    Knows knows = Knows::All;
};

// Debug information apart from the program, as distributions and others have it.
constexpr char kKeep[] = "objcopy --only-keep-debug program program.debug && ";
constexpr char kById[] =
    "id=$(readelf -n program | sed -n 's/.*Build ID: //p') && mkdir -p debug/.build-id/${id%${id#??}} && "
    "mv program.debug debug/.build-id/${id%${id#??}}/${id#??}.debug";

std::vector<Way> ways() {
    static const std::string linked =
        std::string(kKeep) + "strip program && objcopy --add-gnu-debuglink=program.debug program";
    static const std::string hidden = linked + " && mkdir .debug && mv program.debug .debug";
    static const std::string byId = std::string(kKeep) + "strip program && " + kById;
    static const std::string small =
        "nm program --format=posix --defined-only | awk '$2 ~ /^[TtWV]$/ {print $1}' >keep && "
        "objcopy -S --remove-section .gnu_debuglink --keep-symbols=keep program mini && strip program && xz mini && "
        "objcopy --add-section .gnu_debugdata=mini.xz program";
    return {
        {"g++ -g"},
        {"g++ -g -O2"},
        {"g++ -g -O2 -no-pie"},
        {"g++ -gdwarf-4 -O1 -fdebug-types-section"},
        {"g++ -g -O2 -gz"},
        {"g++ -g -O2 -flto"},
        {"g++ -g -O2 -gsplit-dwarf"},
        {"clang++ -g"},
        {"clang++ -g -O2"},
        {"clang++ -gdwarf-4 -O2 -no-pie"},
        {"clang++ -g -O2 -gsplit-dwarf"},
        {"g++ -g -O2", linked.c_str()},
        {"g++ -g -O2", hidden.c_str()},
        {"g++ -g -O2", byId.c_str()},
        {"clang++ -g -O2", byId.c_str()},
        {"g++ -O2", "true", Knows::Names},
        {"clang++ -O2", "true", Knows::Names},
        {"g++ -O2", small.c_str(), Knows::Names},
        {"g++ -O2 -rdynamic", "strip program", Knows::NoInlined},
        {"g++ -O2", "strip program", Knows::Nothing},
    };
}

} // namespace

TEST(Symbols, NameWhatProgramsEnter) {
    const std::vector<std::string> source = linesOf(kSource);
    std::set<std::size_t> named;
    for (std::size_t line = 1; line < source.size(); ++line) {
        if (source[line].find(" //= ") != std::string::npos)
            named.insert(line);
    }
    for (const Way& way : ways()) {
        SCOPED_TRACE(std::string(way.compiler) + "; " + way.afterwards);
        BuiltProgram built;
        if (!built.build(std::string(way.compiler) + " -finstrument-functions")) {
            std::printf("skipped: %s\n", way.compiler);
            continue;
        }
        ASSERT_TRUE(built.shell(way.afterwards)) << built.directory.content("err");
        built.run();
        std::set<std::size_t> found;
        for (const BuiltProgram::Place& place : built.places) {
            const Symbols::Function& function = built.function(place.address);
            EXPECT_EQ(built.symbols(built.moduleOf(place.address)).problem(), "");
            if (place.word == "library") {
                EXPECT_EQ(function.name, place.number);
            } else if (place.word == "at") {
                const std::vector<Symbols::Frame> frames = built.frames(place.address);
                if (way.knows != Knows::All)
                    continue;
                // The innermost line calls at(), each other one the function that it is the line of.
                EXPECT_NE(source[frames[0].line].find("at(" + place.number + ")"), std::string::npos) << frames[0].line;
                EXPECT_EQ(frames[0].file, kSource);
                if (place.number == "1") {
                    ASSERT_EQ(frames.size(), 3u);
                    EXPECT_EQ(frames[0].name, "outer::v2::leaf()");
                    EXPECT_EQ(frames[1].name, "outer::v2::middle()");
                    EXPECT_EQ(frames[2].name, "work()");
                    EXPECT_NE(source[frames[1].line].find("    leaf();"), std::string::npos);
                    EXPECT_NE(source[frames[2].line].find("middle();"), std::string::npos);
                } else if (place.number == "2") {
                    EXPECT_NE(frames[0].name.find("operator()"), std::string::npos);
                    EXPECT_TRUE(frames[0].name.starts_with("shop::Till::open(int)::")) << frames[0].name;
                    if (frames.size() > 1) {
                        EXPECT_EQ(frames[1].name, "shop::Till::open(int)");
                    }
                } else {
                    EXPECT_EQ(frames.back().name, "cold(int)");
                }
            } else if (way.knows == Knows::All) {
                EXPECT_EQ(function.file, kSource);
                EXPECT_TRUE(hasName(source[function.line], function.name)) << function.line << ' ' << function.name;
                found.insert(function.line);
            } else if (function.isNamed) {
                EXPECT_TRUE(way.knows != Knows::Nothing) << function.name;
                EXPECT_TRUE(std::ranges::any_of(source, [&](const auto& line) { return hasName(line, function.name); }))
                    << function.name;
                EXPECT_EQ(function.line, 0u);
                found.insert(found.size());
            } else {
                EXPECT_TRUE(way.knows >= Knows::NoInlined);
                EXPECT_TRUE(function.name.starts_with("program+0x")) << function.name;
            }
        }
        if (way.knows == Knows::All) {
            EXPECT_EQ(found, named);
        } else {
            EXPECT_EQ(found.empty(), way.knows == Knows::Nothing);
        }
    }
}

TEST(Symbols, BelieveOnlyTheFileThatRan) {
    BuiltProgram built;
    if (!built.build("g++ -g -finstrument-functions"))
        GTEST_SKIP() << "no g++";
    built.run();
    const BuiltProgram::Module program = built.modules[0];
    const std::uint64_t address = built.places[0].address - program.bias;
    const auto tells = [&](const std::string& name, const std::string& problem) {
        Symbols symbols(program.path, bytesOf(program.buildId), built.directory.path("debug"));
        const bool isThere = symbols.function(address).name == name;
        EXPECT_TRUE(isThere) << symbols.function(address).name;
        EXPECT_EQ(symbols.problem(), problem);
    };
    tells("main", "");
    ASSERT_TRUE(built.shell("cp program kept && " + std::string(kKeep) + kById));
    std::filesystem::rename(built.directory.path("debug"), built.directory.path("later"));
    ASSERT_TRUE(built.build("g++ -g -O2 -finstrument-functions"));
    const std::string unnamed = (std::ostringstream() << "program+0x" << std::hex << address).str();
    tells(unnamed, "is not the file that ran, but another build of it");
    std::filesystem::remove(program.path);
    tells(unnamed, "No such file or directory");
    built.directory.write("program", "text");
    tells(unnamed, "not a valid ELF file");
    // Its debug file is still known by its build id.
    std::filesystem::rename(built.directory.path("later"), built.directory.path("debug"));
    tells("main", "");
}

TEST(Symbols, KnowTheKernelsCode) {
    BuiltProgram built;
    if (!built.build("g++ -finstrument-functions"))
        GTEST_SKIP() << "no g++";
    built.run();
    const auto vdso = std::ranges::find_if(built.modules, [](const auto& its) { return its.path[0] != '/'; });
    if (vdso == built.modules.end())
        GTEST_SKIP() << "no vdso";
    std::set<std::string> names;
    for (std::uint64_t address = vdso->from; address < vdso->to; ++address)
        names.insert(built.function(address).name);
    EXPECT_TRUE(names.contains("__vdso_clock_gettime") || names.contains("clock_gettime"));
}

TEST(Symbols, TellFunctionsFromLabels) {
    struct {
        unsigned offset;
        const char* name; ///< null: none
    } const cases[] = {{0, "block"},  {1, "block"}, {2, "sized"},  {3, "sized"},   {4, "sized"},   {5, nullptr},
                       {6, "a::b()"}, {7, "fast"},  {8, "its.v2"}, {9, "visible"}, {10, "chosen"}, {11, "tail"}};
    BuiltProgram built;
    const std::string source = built.directory.write("labels.c", R"(
#include <stdio.h>
#define SIZED(name, nops) ".type " name ",@function\n" name ": " nops "\n .size " name ", . - " name "\n"
__asm__(".text\n .globl block, visible, __visible, sized\n .p2align 4\n block: nop; nop\n"
        SIZED("sized", "nop; .globl inner; inner: nop; nop") "nop\n"
        SIZED("_ZN1a1bEv.isra.0", "nop") SIZED("fast.constprop.3.cold", "nop") SIZED("its.v2", "nop")
        "__visible:\n" SIZED("visible", "nop")
        ".type chosen,@gnu_indirect_function\n chosen: nop\n .size chosen, 1\n tail: nop; ret\n");
extern char block[];
void tell(void) {}
int main(void) { printf("module 0 ffffffffffffffff 0 -\nblock %p\n", (void*)block); }
)");
    if (!built.build("gcc -no-pie -x c", source))
        GTEST_SKIP() << "no gcc";
    built.run();
    Symbols symbols(built.directory.path("program"));
    for (const auto& [offset, name] : cases) {
        const Symbols::Function& function = symbols.function(built.places[0].address + offset);
        EXPECT_EQ(function.isNamed ? function.name : "", name ? name : "") << offset;
    }
}

TEST(FunctionIds, FollowFromNameFileAndLine) {
    qvx::FunctionIds ids({});
    const std::uint32_t id = ids.give("work()", "/src/a.cpp", 7);
    // FNV-1a of "work()\0/src/a.cpp\0" "7"
    EXPECT_EQ(id, 0x41808efeu);
    EXPECT_NE(ids.give("work()", "/src/a.cpp", 8), id);
    EXPECT_NE(ids.give("work()", "/src/b.cpp", 7), id);
    EXPECT_EQ(ids.collisions(), 0u);
    qvx::FunctionIds others({id});
    const std::uint32_t other = others.give("work()", "/src/a.cpp", 7);
    EXPECT_NE(other, id);
    EXPECT_EQ(others.collisions(), 1u);
    EXPECT_EQ(qvx::FunctionIds({id}).give("work()", "/src/a.cpp", 7), other);
}

} // namespace Quorvex::test
