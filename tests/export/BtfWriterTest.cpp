#include "quorvex/export/BtfWriter.h"

#include "quorvex/packets/PacketKinds.h"
#include "tests/support/BtfChecker.h"
#include "tests/support/Golden.h"
#include "tests/support/RandomPackets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <sstream>

namespace Quorvex::test {
namespace {

using Losses = CViewerWriter::Losses;
using Packets = std::vector<std::shared_ptr<CPacket>>;

template <class Packet, class... Values>
std::shared_ptr<CPacket> at(std::uint64_t tick, std::uint32_t core, std::uint32_t task, Values... values) {
    return std::make_shared<Packet>(CCoreContext(tick, core, task, 0x1000), values...);
}

struct Written {
    std::string text;
    Losses losses;

    /// The event lines.
    std::string body() const {
        std::istringstream in(text);
        std::string body;
        for (std::string line; std::getline(in, line);)
            body += line.starts_with('#') ? "" : line + "\n";
        return body;
    }
};

Written written(const Packets& packets, ViewerOptions options = {}) {
    std::ostringstream out;
    options.inputs = "a\nb.qvx";
    options.recordedUntil = 1'787'393'700'000'000'999;
    CBtfWriter writer(out, options);
    for (const auto& packet : packets)
        EXPECT_TRUE(writer.put(packet.get()));
    writer.flush();
    EXPECT_TRUE(writer.written());
    return {out.str(), writer.losses()};
}

const std::vector<std::string> kLegal; ///< no complaint

TEST(BtfChecker, NamesEachFault) {
    const std::string legal =
        "#version 2.1.0\n#typeTable\n#-0 C\n#-1 T\n#-2 R\n#-3 SIG\n#-4 STI\n"
        "#-5 SIM\n#entityTable\n#-0 C1\n#-1 C2\n#-2 A\n#-3 F\n#-4 S\n#-5 V\n#-6 SIM\n"
        "#entityTypeTable\n#-C C1\n#-C C2\n#-T A\n#-R F\n#-STI S\n#-SIG V\n#-SIM SIM\n"
        "# events\n1,SIM,-1,STI,S,0,trigger\n2,S,0,T,A,0,activate\n3,C1,0,T,A,0,start\n4,A,0,R,F,0,start\n"
        "5,A,0,R,F,1,start\n6,A,0,R,F,1,suspend\n7,A,0,R,F,0,suspend\n8,C1,0,T,A,0,preempt\n"
        "9,C2,0,T,A,0,resume\n10,A,0,R,F,0,resume\n11,A,0,R,F,1,resume\n"
        "12,A,0,SIG,V,0,write,7\n13,A,0,R,F,1,terminate\n14,A,0,R,F,0,terminate\n"
        "15,C2,0,T,A,0,terminate\n";
    EXPECT_EQ(checkBtf(legal), kLegal);
    EXPECT_EQ(checkBtf(legal.substr(0, legal.find("# events"))),
              std::vector{std::string("line 24: file ends inside a table")});
    const std::tuple<std::string, std::string, std::string> kFaults[] = {
        {"#version 2.1.0", "# 2.1.0", "line 0: version is missing"},
        {"#-2 A\n", "", "line 39: A is not in the entity table"},
        {"#-3 F\n", "#-3 F\n#-9 F\n", "line 14: F is twice in the entity table"},
        {"#-T A\n", "#-T A\n#-R A\n", "line 21: A has two types"},
        {"#-R F\n", "", "line 28: F is not of type R"},
        {"#-1 T\n", "", "line 19: T is not in the type table"},
        {"# events\n", "# events\n#-0 A\n", "line 26: row of no table"},
        {"# events\n", "# events\n1,SIM,-1,STI,S,0,trigger\n#timeScale ns\n", "line 27: parameter behind the events"},
        {"5,A,0", "x,A,0", "line 30: not an integer"},
        {"5,A,0", "3,A,0", "line 30: time goes back"},
        {",F,1,suspend", ",F,suspend", "line 31: not 7 or 8 columns"},
        {"12,A,0", "12,B,0", "line 37: source B is no entity"},
        {"STI,S,0,trigger", "STI,S,1,trigger", "line 26: number is not the next of S"},
        {"1,SIM,-1,STI,S,0,trigger\n", "", "line 26: activate without its trigger"},
        {"A,0,activate", "A,1,activate", "line 27: number is not the next of A"},
        {"3,C1,0,T,A,0,start", "3,C1,0,T,A,0,resume", "line 28: resume while active"},
        {"3,C1,0,T,A,0,start", "3,C1,0,T,A,0,begin", "line 28: unknown event begin"},
        {"9,C2,0,T", "9,S,0,T", "line 34: source is no core"},
        {"8,C1,0,T", "8,C2,0,T", "line 33: A is not on C2"},
        {"9,C2,0,T,A,0,resume", "9,C2,0,T,A,0,start", "line 34: start while ready"},
        {"15,C2,0,T,A,0,terminate\n", "15,SIM,-1,STI,S,1,trigger\n15,S,1,T,A,1,activate\n15,C2,0,T,A,1,start\n",
         "line 42: C2 is not free"},
        {"5,A,0,R,F,1,start", "5,A,0,R,F,2,start", "line 30: number is not the next of F"},
        {"5,A,0,R,F,1,start\n6,A,0,R,F,1,suspend\n", "5,A,0,R,F,0,suspend\n6,A,0,R,F,1,start\n",
         "line 31: start among suspended runnables"},
        {"6,A,0,R,F,1,suspend\n7,A,0,R,F,0,suspend", "6,A,0,R,F,0,suspend\n7,A,0,R,F,1,suspend",
         "line 31: suspend is not of the innermost"},
        {"7,A,0,R,F,0,suspend\n", "", "line 32: runnables still run"},
        {"10,A,0,R,F,0,resume\n11,A,0,R,F,1,resume", "10,A,0,R,F,1,resume\n11,A,0,R,F,0,resume",
         "line 35: resume is not of the outermost"},
        {"10,A,0,R", "10,A,1,R", "line 35: source is no running process"},
        {"11,A,0,R,F,1,resume\n", "", "line 36: runnables are still suspended"},
        {"13,A,0,R,F,1,terminate\n", "", "line 38: terminate is not of the innermost"},
        {"14,A,0,R,F,0,terminate\n", "", "line 39: runnables still run"},
        {"1,SIM,-1,", "1,S,0,", "line 26: SIM is not the source"},
        {"T,A,0,start", "I,A,0,start", "line 28: A is not of type I"},
        {"#version 2.1.0", "#version 2.2.0", "line 3: row of no table"},
        {"SIG,V,0,write", "SIG,V,0,trigger", "line 37: unknown event trigger"},
        {"write,7", "write", "line 37: note is missing"},
    };
    for (const auto& [from, to, first] : kFaults) {
        std::string text = legal;
        ASSERT_NE(text.find(from), std::string::npos) << from;
        text.replace(text.find(from), from.size(), to);
        const std::vector<std::string> complaints = checkBtf(text);
        ASSERT_FALSE(complaints.empty()) << first;
        EXPECT_TRUE(complaints.front().starts_with(first)) << complaints.front() << "\n" << first;
    }
}

TEST(BtfWriter, WritesTasksInterruptsFunctionsAndValues) {
    const std::uint8_t wide[] = {1, 2, 3, 4, 5, 6, 7, 8, 0xFF};
    const Written file =
        written({std::make_shared<CTraceEnabled>(),
                 at<CFunctionDefine>(100, 0, 1, 7U, "main"),
                 at<CProcessDefine>(100, 0, 1, 3U, "shell"),
                 at<CVariableDefine>(100, 0, 1, 5U, 0U, "speed"),
                 at<CCounterDefine>(100, 0, 1, 6U, std::uint8_t{1}, "misses"),
                 at<CFunctionEnter>(110, 0, 1, 7U),
                 at<CVariableWrite>(120, 0, 1, 5U, CData(std::uint16_t{513})),
                 at<CHWExceptionEnter>(130, 0, 1, 2U),
                 at<CFunctionEnter>(140, 0, 1, 7U, 8U),
                 at<CFunctionLeave>(150, 0, 1, 8U),
                 at<CHWExceptionLeave>(160, 0, 1, 2U),
                 at<CExecInsn>(170, 1, 1),
                 at<CCounterValueDim1>(180, 1, 1, 6U, TCounter_t(std::uint64_t{9}), TCounterIdx_t(std::uint64_t{4})),
                 at<CProcessEnter>(190, 1, 1, 3U),
                 at<CVariableRead>(200, 1, 9, 5U, CData(wide, 9)),
                 at<CProcessLeave>(210, 1, 9, 3U),
                 at<CFunctionLeave>(220, 1, 1, 7U),
                 at<CProcessEnter>(230, 0, 2, 3U),
                 at<CProcessUndefine>(240, 0, 2, 3U),
                 std::make_shared<CTraceDisabled>()});
    EXPECT_TRUE(file.text.starts_with("#version 2.1.0\n#creator Quorvex ("));
    expectGolden("everything.btf", file.text.substr(file.text.find("#creationDate")));
    EXPECT_EQ(checkBtf(file.text), kLegal);
    EXPECT_EQ(file.losses, (Losses{{"events that were missing and supplied", 3}, {"instructions and branches", 1}}))
        << "the thread of the process that had been preempted";
}

TEST(BtfWriter, SuppliesWhatIsMissingAndIgnoresWhatHasNoBeginning) {
    const std::pair<const char*, Packets> cases[] = {
        {"a leave skips an open function",
         {at<CFunctionEnter>(0, 0, 1, 7U), at<CFunctionEnter>(1, 0, 1, 8U), at<CFunctionLeave>(2, 0, 1, 7U)}},
        {"leaves without enters",
         {at<CHWExceptionLeave>(0, 0, 1, 2U), at<CProcessLeave>(0, 0, 1, 3U), at<CFunctionLeave>(0, 0, 1, 7U)}},
        {"a leave skips an interrupt",
         {at<CHWExceptionEnter>(0, 0, 1, 2U), at<CHWExceptionEnter>(1, 0, 1, 4U), at<CFunctionEnter>(2, 0, 1, 7U),
          at<CHWExceptionLeave>(3, 0, 1, 2U)}},
        {"a process is undefined that does not run",
         {at<CProcessEnter>(0, 0, 1, 3U), at<CProcessLeave>(1, 0, 1, 3U), at<CHWExceptionEnter>(2, 0, 1, 2U),
          at<CProcessUndefine>(3, 0, 1, 3U), at<CProcessUndefine>(3, 0, 1, 4U)}},
        {"a process is entered on a second core",
         {at<CProcessEnter>(0, 0, 1, 3U), at<CProcessEnter>(1, 1, 1, 3U), at<CProcessLeave>(2, 0, 1, 3U)}},
        {"what cannot be shown",
         {std::make_shared<CBusData>(), std::make_shared<CSystemData>(), std::make_shared<CMessage>(),
          std::make_shared<CTransition>(), at<CFunctionEnter>(0, 0, 1, ~0U)}},
    };
    std::string all;
    for (const auto& [what, packets] : cases) {
        const Written file = written(packets);
        EXPECT_EQ(checkBtf(file.text), kLegal) << what;
        all.append("# ").append(what).append("\n").append(file.body());
        for (const auto& [reason, count] : file.losses)
            all.append("# lost: ").append(std::to_string(count)).append(" ").append(reason).append("\n");
    }
    expectGolden("supplied.btf", all);
}

TEST(BtfWriter, KeepsNoMoreThanItsLimitOfOpenFunctionsAndInterrupts) {
    Packets packets{at<CProcessEnter>(0, 0, 1, 3U)};
    const auto add = [&packets](unsigned count, const std::shared_ptr<CPacket>& packet) {
        packets.insert(packets.end(), count, packet);
    };
    add(4097, at<CFunctionEnter>(0, 0, 1, 7U));
    packets.insert(packets.end(),
                   {at<CProcessUndefine>(0, 0, 1, 3U), at<CProcessEnter>(0, 0, 1, 3U), at<CFunctionEnter>(0, 0, 1, 7U),
                    at<CFunctionLeave>(0, 0, 1, 7U), at<CProcessLeave>(0, 0, 1, 3U)});
    add(4098, at<CFunctionEnter>(1, 0, 1, 7U));
    add(4098, at<CFunctionLeave>(2, 0, 1, 7U));
    add(257, at<CHWExceptionEnter>(5000, 0, 1, 2U));
    add(257, at<CHWExceptionLeave>(5000, 0, 1, 2U));
    const Written file = written(packets);
    EXPECT_EQ(checkBtf(file.text), kLegal);
    EXPECT_EQ(file.losses.at("functions nested too deep"), 5U);
    EXPECT_EQ(file.losses.at("interrupts nested too deep"), 2U);
    EXPECT_FALSE(file.losses.contains("leaves without an enter"));
}

/// Cores that switch threads and processes, are interrupted, and call functions; all leaves are there.
TEST(BtfWriter, FollowsASchedulerWithoutLoss) {
    enum Kind { Thread, Process, Interrupt };
    struct Flow {
        Kind kind;
        std::uint32_t id;
        std::vector<std::uint32_t> functions;
    };
    RandomPackets random(7);
    std::vector<Flow> idle[2]; ///< threads and processes
    for (std::uint32_t i = 0; i < 8; ++i) {
        idle[Thread].push_back({Thread, i, {}});
        idle[Process].push_back({Process, 8 + i, {}});
    }
    const auto take = [&](Kind kind, std::vector<Flow>& core) {
        const auto chosen = idle[kind].begin() + random.below(static_cast<unsigned>(idle[kind].size()));
        core.push_back(*chosen);
        idle[kind].erase(chosen);
    };
    const auto giveUp = [&](std::vector<Flow>& core) {
        if (core.back().kind != Interrupt)
            idle[core.back().kind].push_back(core.back());
        core.pop_back();
    };
    std::vector<Flow> cores[3]; ///< a thread, maybe a process, and interrupts
    Packets packets;
    for (std::uint64_t tick = 1000; packets.size() < 20'000; tick += random.below(5)) {
        const unsigned number = random.below(3);
        std::vector<Flow>& core = cores[number];
        if (core.size() == 1 && random.below(20) == 0)
            giveUp(core);
        if (core.empty())
            take(Thread, core);
        const std::uint32_t task = core.front().id;
        auto& [kind, id, functions] = core.back();
        const unsigned what = random.below(10);
        if (what < 2 && core.size() < 5) {
            core.push_back({Interrupt, random.below(4), {}});
            packets.push_back(at<CHWExceptionEnter>(tick, number, task, core.back().id));
        } else if (what < 3 && kind == Interrupt && functions.empty()) {
            packets.push_back(at<CHWExceptionLeave>(tick, number, task, id));
            giveUp(core);
        } else if (what < 5 && functions.size() < 6) {
            functions.push_back(random.below(9));
            packets.push_back(at<CFunctionEnter>(tick, number, task, functions.back()));
        } else if (what < 8 && !functions.empty()) {
            packets.push_back(at<CFunctionLeave>(tick, number, task, functions.back()));
            functions.pop_back();
        } else if (what == 8) {
            packets.push_back(at<CVariableWrite>(tick, number, task, 5U, CData(tick)));
        } else if (kind == Process) {
            packets.push_back(functions.empty() ? at<CProcessUndefine>(tick, number, task, id)
                                                : at<CProcessLeave>(tick, number, task, id));
            giveUp(core);
        } else if (kind == Thread) {
            take(Process, core);
            packets.push_back(at<CProcessEnter>(tick, number, task, core.back().id));
        }
    }
    const Written file = written(packets);
    EXPECT_EQ(checkBtf(file.text), kLegal);
    EXPECT_EQ(file.losses, Losses());
}

TEST(BtfWriter, WritesALegalFileFromAnyPackets) {
    constexpr std::array kMake = {
        at<CHWExceptionEnter, std::uint32_t>, at<CHWExceptionLeave, std::uint32_t>, at<CProcessEnter, std::uint32_t>,
        at<CProcessLeave, std::uint32_t>,     at<CProcessUndefine, std::uint32_t>,  at<CFunctionEnter, std::uint32_t>,
        at<CFunctionLeave, std::uint32_t>,    at<CVariableRead, std::uint32_t>,
    };
    constexpr std::array kDefine = {at<CFunctionDefine, std::uint32_t, const char*>,
                                    at<CProcessDefine, std::uint32_t, const char*>};
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        RandomPackets random(seed);
        Packets packets;
        for (std::uint64_t tick = 0; packets.size() < 2000; tick += random.below(3)) {
            const std::uint32_t core = random.below(3), task = random.below(4), id = random.below(4);
            const auto* make = &kMake[random.below(kMake.size())];
            packets.push_back(random.below(4) == 0 ? random.packet() : (*make)(tick, core, task, id));
            if (packets.back()->TraceCode() == TraceDisabled)
                packets.pop_back();
        }
        EXPECT_EQ(checkBtf(written(packets).text), kLegal);

        // The same of several processes, which end and begin again, with gaps, and names that come late.
        std::ostringstream out;
        CBtfWriter writer(out);
        for (const auto& packet : packets) {
            writer.setProcess(random.below(3));
            if (random.below(50) == 0)
                writer.endProcess(random.below(3));
            const auto other = random.below(100) == 0   ? at<CTraceBroken>(0, random.below(3), random.below(4))
                               : random.below(100) == 0 ? kDefine[random.below(2)](0, 0, 0, random.below(4),
                                                                                   random.below(2) ? "one" : "other")
                                                        : packet;
            EXPECT_TRUE(writer.put(other.get()));
        }
        writer.flush();
        EXPECT_EQ(checkBtf(out.str()), kLegal);
    }
}

TEST(BtfWriter, MakesNamesLegalAndUnique) {
    const Written file =
        written({at<CFunctionDefine>(0, 0, 1, 1U, "#a,b c\n\xc3\xa4"), at<CFunctionDefine>(0, 0, 1, 2U, "_a_b_c___"),
                 at<CFunctionDefine>(0, 0, 1, 3U, "TASK_1"), at<CProcessDefine>(0, 0, 1, 1U, "1"),
                 at<CFunctionEnter>(0, 0, 1, 1U), at<CFunctionEnter>(0, 0, 1, 2U), at<CFunctionEnter>(0, 0, 1, 3U),
                 at<CProcessEnter>(0, 0, 1, 1U), at<CVariableWrite>(0, 0, 1, 9U, CData())});
    EXPECT_NE(file.text.find("#-T TASK_1\n#-STI STI_TASK_1\n#-R _a_b_c___\n#-R _a_b_c____2\n#-R TASK_1_3\n"
                             "#-T TASK_1_1\n#-STI STI_TASK_1_1\n#-SIG variable_9\n"),
              std::string::npos)
        << file.text;
    EXPECT_NE(file.text.find("0,TASK_1_1,0,SIG,variable_9,0,write,unknown\n"), std::string::npos) << file.text;
    EXPECT_EQ(checkBtf(file.text), kLegal);
}

TEST(BtfWriter, FitsTheVersionThatItTells) {
    const Packets packets{at<CHWExceptionEnter>(0, 0, 1, 2U), at<CFunctionEnter>(1, 0, 1, 7U)};
    const std::tuple<const char*, const char*, const char*> kVersions[] = {
        {"2.1.0", "\n#-2 ISR\n", "\n0,SIM,-1,STI,STI_TASK_ISR_2,0,trigger\n"},
        {"2.1.5", "\n#-2 I\n", "\n0,SIM,-1,STI,STI_TASK_ISR_2,0,trigger\n"},
        {"2.2.0", "\n#typeMapping 2 I\n", "\n0,STI_TASK_ISR_2,0,STI,STI_TASK_ISR_2,0,trigger\n"},
    };
    for (const auto& [version, type, trigger] : kVersions) {
        ViewerOptions options;
        options.btfVersion = version;
        const Written file = written(packets, options);
        EXPECT_TRUE(file.text.starts_with(std::string("#version ") + version + "\n"));
        EXPECT_EQ(checkBtf(file.text), kLegal) << version;
        EXPECT_NE(file.text.find(type), std::string::npos) << file.text;
        EXPECT_NE(file.text.find(trigger), std::string::npos) << file.text;
    }
}

TEST(BtfWriter, GivesNamesThatComeLateToAllLines) {
    const Written file =
        written({at<CProcessEnter>(0, 0, 1, 3U), at<CFunctionEnter>(0, 0, 1, 7U), at<CFunctionLeave>(1, 0, 1, 7U),
                 at<CVariableWrite>(1, 0, 1, 5U, CData(std::uint8_t{1})),
                 at<CCounterValue>(1, 0, 1, 6U, TCounter_t(std::uint64_t{0})), at<CFunctionDefine>(2, 0, 1, 7U, "main"),
                 at<CProcessDefine>(2, 0, 1, 3U, "shell"), at<CVariableDefine>(2, 0, 1, 5U, 0U, "speed"),
                 at<CCounterDefine>(2, 0, 1, 6U, std::uint8_t{0}, "misses"), at<CExecInsn>(3, 0, 2)});
    EXPECT_EQ(checkBtf(file.text), kLegal);
    EXPECT_EQ(file.body(), "0,SIM,-1,STI,STI_TASK_shell_1,0,trigger\n0,STI_TASK_shell_1,0,T,TASK_shell_1,0,activate\n"
                           "0,Core_0,0,T,TASK_shell_1,0,start\n0,TASK_shell_1,0,R,main,0,start\n"
                           "1,TASK_shell_1,0,R,main,0,terminate\n1,TASK_shell_1,0,SIG,speed,0,write,1\n"
                           "1,TASK_shell_1,0,SIG,misses,0,write,0\n3,Core_0,0,T,TASK_shell_1,0,preempt\n"
                           "3,SIM,-1,STI,STI_TASK_shell_2,0,trigger\n3,STI_TASK_shell_2,0,T,TASK_shell_2,0,activate\n"
                           "3,Core_0,0,T,TASK_shell_2,0,start\n3,Core_0,0,T,TASK_shell_2,0,terminate\n")
        << "a thread of a process that has another has its number";
    EXPECT_EQ(file.text.find("function_7"), std::string::npos);
}

TEST(BtfWriter, ReturnsToTheOuterProcessAndTerminatesJobs) {
    const Written file =
        written({at<CProcessEnter>(0, 0, 1, 3U), at<CFunctionEnter>(1, 0, 1, 7U), at<CProcessEnter>(2, 0, 1, 4U),
                 at<CProcessLeave>(3, 0, 1, 4U), at<CFunctionLeave>(4, 0, 1, 7U), at<CProcessLeave>(5, 0, 1, 3U),
                 at<CProcessEnter>(6, 0, 1, 3U), at<CFunctionEnter>(7, 0, 1, 8U), at<CProcessLeave>(8, 0, 1, 3U),
                 at<CProcessEnter>(9, 0, 1, 3U)});
    EXPECT_EQ(checkBtf(file.text), kLegal);
    EXPECT_EQ(file.losses, Losses());
    std::string told;
    std::istringstream lines(file.body());
    for (std::string line; std::getline(lines, line);) {
        if (line.find(",T,TASK_") != std::string::npos && !line.ends_with("activate"))
            told += line + "\n";
    }
    EXPECT_EQ(told, "0,Core_0,0,T,TASK_process_3,0,start\n2,Core_0,0,T,TASK_process_3,0,preempt\n"
                    "2,Core_0,0,T,TASK_process_4,0,start\n3,Core_0,0,T,TASK_process_4,0,terminate\n"
                    "3,Core_0,0,T,TASK_process_3,0,resume\n5,Core_0,0,T,TASK_process_3,0,terminate\n"
                    "6,Core_0,0,T,TASK_process_3,1,start\n8,Core_0,0,T,TASK_process_3,1,preempt\n"
                    "9,Core_0,0,T,TASK_process_3,1,resume\n9,Core_0,0,T,TASK_process_3,1,terminate\n");
}

TEST(BtfWriter, WritesValuesByTheirTypes) {
    const auto bits = [](double value) { return std::bit_cast<std::uint64_t>(value); };
    const std::pair<std::vector<std::uint64_t>, std::vector<std::string>> kCounters[] = {
        {{0, bits(0.1), bits(300)}, {"0.0", "0.1", "300.0"}},
        {{bits(0.5), 7}, {"4602678819172646912", "7"}},
        {{5, ~std::uint64_t{0}}, {"5", "-1"}},
        {{~std::uint64_t{0}, bits(0.5)}, {"18446744073709551615", "4602678819172646912"}},
    };
    for (const auto& [values, notes] : kCounters) {
        Packets packets;
        for (const std::uint64_t value : values)
            packets.push_back(at<CCounterValue>(packets.size(), 0, 1, 6U, TCounter_t(value)));
        const std::string body = written(packets).body();
        for (const std::string& note : notes)
            EXPECT_NE(body.find(",counter_6,0,write," + note + "\n"), std::string::npos) << note << "\n" << body;
    }
}

TEST(BtfWriter, EndsWhatRunsAtTheEndOfAnInputAndAtAGap) {
    std::ostringstream out;
    CBtfWriter writer(out);
    const auto put = [&writer](unsigned process, const std::shared_ptr<CPacket>& packet) {
        writer.setProcess(process);
        EXPECT_TRUE(writer.put(packet.get()));
    };
    put(0, at<CFunctionEnter>(0, 0, 1, 7U));
    put(1, at<CFunctionEnter>(10, 1, 2, 7U));
    put(0, at<CFunctionEnter>(20, 0, 1, 8U));
    writer.endProcess(0);
    put(1, at<CFunctionEnter>(30, 1, 2, 8U));
    EXPECT_EQ(writer.losses(), Losses());
    put(1, at<CTraceBroken>(40, 1, 2));
    put(1, at<CExecInsn>(50, 1, 2));
    writer.flush();
    EXPECT_EQ(checkBtf(out.str()), kLegal);
    EXPECT_EQ(writer.losses().at("gaps in the trace"), 1U);
    for (const char* line : {"\n20,TASK_1,0,R,function_7,0,terminate\n20,Core_0,0,T,TASK_1,0,terminate\n",
                             "\n40,Core_1,0,T,TASK_2,0,terminate\n", "\n50,Core_1,0,T,TASK_2,1,start\n"})
        EXPECT_NE(out.str().find(line), std::string::npos) << out.str();
}

TEST(BtfWriter, TellsTimesInNanoseconds) {
    const Packets packets{at<CExecInsn>(1000, 0, 1), at<CVariableWrite>(1010, 0, 1, 5U, CData(std::uint8_t{1}))};
    EXPECT_NE(written(packets).body().find("\n10,TASK_1,0,SIG,variable_5,0,write,1\n"), std::string::npos);
    Packets timed = packets;
    timed.push_back(std::make_shared<CTimestamp>(std::uint64_t{1010}, std::uint64_t{3'000'000}));
    EXPECT_NE(written(timed).body().find("\n3333,TASK_1,0,SIG,variable_5,0,write,1\n"), std::string::npos);
}

TEST(BtfWriter, WritesNoTableLastAndTellsOfAStreamThatFails) {
    const Written empty = written({std::make_shared<CTraceDisabled>()});
    EXPECT_EQ(checkBtf(empty.text), kLegal);
    EXPECT_EQ(empty.body(), "");
    std::ostringstream out;
    CBtfWriter writer(out);
    EXPECT_TRUE(writer.put(at<CExecInsn>(0, 0, 1).get()));
    out.setstate(std::ios::badbit);
    EXPECT_FALSE(writer.good());
    writer.clear();
    EXPECT_TRUE(writer.good());
    out.setstate(std::ios::badbit);
    std::list<CPacket*> packets{new CExecInsn, new CTraceDisabled};
    EXPECT_FALSE(writer.forward(packets));
    EXPECT_FALSE(writer.good() || writer.written());
    EXPECT_EQ(packets.size(), 1U) << "the packet that was to write it stays with the caller";
    CPacketFactory::release(packets);
}

} // namespace
} // namespace Quorvex::test
