#include "Resolve.h"

#include "LiveNames.h"
#include "quorvex/packets/PacketKinds.h"
#include "tests/support/RandomPackets.h"
#include "tests/tools/BuiltProgram.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace Quorvex::test {

namespace {

std::string hex(std::uint64_t number) {
    return (std::ostringstream() << "0x" << std::hex << number).str();
}

/// A recorded trace, and what it says when it has been resolved.
class Recorded {
public:
    template <class Packet> void put(Packet packet) { m_bytes += wireOf(packet); }
    void tell(std::uint64_t tick, const std::string& text) {
        put(CMessage(tick, CMessagePayload::kDebugLevel, ("quorvex." + text).c_str()));
    }
    void module(std::uint64_t tick, const BuiltProgram::Module& its) {
        tell(tick, "module pid=7 from=" + hex(its.from) + " to=" + hex(its.to) + " bias=" + hex(its.bias) +
                       " build=" + its.buildId + " path=" + its.path);
    }
    void call(std::uint64_t tick, std::uint64_t address, std::uint32_t thread = 1) {
        const auto id = static_cast<std::uint32_t>(address);
        put(CFunctionEnter(tick, 0, thread, address, id));
        put(CFunctionLeave(tick, 0, thread, address, id));
    }

    std::string write() const { return m_directory.write("trace.qvx", m_bytes); }
    /// Names, in the order of the packets: "=NAME FILE:LINE" of a definition, and "+NAME" and "-NAME" of calls.
    std::string resolved() {
        std::map<std::uint32_t, std::string> names;
        std::string all;
        qvx::resolve(write(), [&](Quorvex::PacketPointer packet) {
            if (const auto* definition = packetAs<CFunctionDefine>(*packet)) {
                EXPECT_FALSE(names.contains(definition->FuncId()));
                names[definition->FuncId()] = std::string(definition->FuncDef().view());
                all += "=" + names[definition->FuncId()] + " ";
            } else if (const auto* enter = packetAs<CFunctionEnter>(*packet)) {
                all += "+" + names[enter->TgtFuncId()] + " ";
            } else if (const auto* leave = packetAs<CFunctionLeave>(*packet)) {
                all += "-" + names[leave->TgtFuncId()] + " ";
            } else if (const auto* message = packetAs<CMessage>(*packet)) {
                const std::string text(message->message().view());
                const std::size_t line = text.find(" line=");
                if (text.starts_with("quorvex.thread")) {
                    threads += text.substr(text.find("tid=") + 4) + ", ";
                } else if (text.starts_with("quorvex.function id=")) {
                    EXPECT_TRUE(names.contains(static_cast<std::uint32_t>(std::stoul(text.substr(20)))));
                    all += text.substr(line + 6, text.find(' ', line + 1) - line - 6) + ":" +
                           text.substr(text.rfind('/') + 1) + " ";
                }
            }
        });
        ids = names;
        return all;
    }

    std::map<std::uint32_t, std::string> ids;
    std::string threads; ///< as it calls them

private:
    TemporaryDirectory m_directory;
    std::string m_bytes;
};

} // namespace

TEST(Resolve, CallsThreadsAsTheyAreInTheEnd) {
    Recorded trace;
    trace.tell(1, "thread pid=7 tid=1 name=program");
    trace.tell(1, "thread pid=7 tid=2 name=program");
    trace.tell(2, "thread pid=8 tid=1 name=other");
    trace.tell(3, "thread pid=7 tid=1 name=worker \\x0a1");
    EXPECT_EQ(trace.resolved(), "");
    EXPECT_EQ(trace.threads, "1 name=worker \\x0a1, 2 name=program, 1 name=other, 1 name=worker \\x0a1, ");
}

TEST(Resolve, NamesCallsByWhatWasThereThen) {
    BuiltProgram program;
    if (!program.build("g++ -g -finstrument-functions"))
        GTEST_SKIP() << "no g++";
    program.run();
    const BuiltProgram::Module& own = program.modules[0];
    const std::uint64_t main = program.places[0].address, puts = program.places[1].address;
    const std::uint64_t hidden = program.places[2].address;
    BuiltProgram::Module library = program.moduleOf(puts);
    // The distribution may have its debug information.
    qvx::Symbols code(library.path);
    const qvx::Symbols::Function& function = code.function(puts - library.bias);
    const std::string source = function.file.empty() ? library.path : function.file;
    const std::string there = std::to_string(function.line) + ":" + source.substr(source.rfind('/') + 1);
    library.bias += main - puts;
    library.from = own.from;
    library.to = own.to;
    const auto gone = "gone pid=7 from=" + hex(own.from) + " to=" + hex(own.to);
    const auto begin = [&](Recorded& trace) {
        trace.tell(1, "process pid=7 parent=1 start=1 wall=1 run=0000000000000001 program=" + own.path);
        trace.tell(2, "thread pid=7 tid=1 name=a name with pid=9");
    };
    const std::string mainHere = "=main 123:named.cpp +main -main ";
    {
        SCOPED_TRACE("told late, gone, another in its place, gone too, and executed again");
        Recorded trace;
        begin(trace);
        trace.call(10, main);
        trace.module(20, own);
        trace.call(30, hidden);
        trace.call(40, main);
        trace.tell(50, gone);
        trace.module(60, library);
        trace.call(70, main);
        trace.tell(80, "process pid=7 parent=1 start=1 wall=1 run=0000000000000001 program=" + own.path);
        trace.module(90, own);
        trace.call(100, main);
        EXPECT_EQ(trace.resolved(),
                  mainHere +
                      "=(anonymous namespace)::hidden() 53:named.cpp +(anonymous namespace)::hidden() "
                      "-(anonymous namespace)::hidden() +main -main =puts " +
                      there + " +puts -puts +main -main ");
    }
    std::uint32_t id = 0;
    {
        SCOPED_TRACE("two processes, one of which tells nothing, and a thread that comes to the other one");
        Recorded trace;
        begin(trace);
        trace.module(3, own);
        trace.tell(4, "thread pid=8 tid=2 name=other");
        trace.call(10, main, 1);
        trace.call(11, main, 2);
        trace.tell(12, "thread pid=7 tid=2 name=other");
        trace.call(13, main, 2);
        const std::string address = hex(main);
        EXPECT_EQ(trace.resolved(), mainHere + "=" + address + " +" + address + " -" + address + " +main -main ");
        for (const auto& [number, name] : trace.ids)
            id = name == "main" ? number : id;
    }
    {
        SCOPED_TRACE("what another recorder has defined keeps its number, and so do its calls");
        Recorded trace;
        begin(trace);
        trace.module(3, own);
        trace.put(CFunctionDefine(4, 0, 1, kUnknown64, id, "scope"));
        trace.put(CFunctionEnter(5, 0, 1, kUnknown64, id));
        trace.call(6, main);
        trace.put(CFunctionLeave(7, 0, 1, kUnknown64, id));
        EXPECT_EQ(trace.resolved(), "=scope +scope " + mainHere + "-scope ");
        EXPECT_EQ(trace.ids[id], "scope");
        EXPECT_EQ(trace.ids.size(), 2u);
    }
    {
        SCOPED_TRACE("built from another directory, functions have the same numbers");
        BuiltProgram other;
        ASSERT_TRUE(other.build("g++ -g -finstrument-functions",
                                other.directory.write("named.cpp", contentOf(BuiltProgram::source()))));
        other.run();
        Recorded trace;
        begin(trace);
        trace.module(3, other.modules[0]);
        trace.call(4, other.places[0].address);
        EXPECT_EQ(trace.resolved(), mainHere);
        EXPECT_EQ(trace.ids[id], "main");
    }
    {
        SCOPED_TRACE("while it is recorded, functions have the lower halves of their addresses for numbers");
        Recorded trace;
        begin(trace);
        trace.module(3, own);
        qvx::LiveNames names;
        names.read({trace.write()});
        EXPECT_EQ(names.nameOf(static_cast<std::uint32_t>(main)), "main");
        EXPECT_EQ(names.nameOf(static_cast<std::uint32_t>(own.to)), "");
        EXPECT_EQ(names.nameOf(static_cast<std::uint32_t>(own.from - 1)), "");
    }
}

} // namespace Quorvex::test
