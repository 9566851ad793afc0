// Runs a program and records every instruction that it executes, with the number of the instruction as its tick.
//
//     singlestep TRACE COUNT PROGRAM [ARGUMENTS...]
//
// After COUNT instructions the program is ended; 0 lets it run to its own end.

#include "quorvex/quorvex.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

static int record(pid_t child, std::uint64_t count, Quorvex::CTraceFileWriterPaged& trace) {
    Quorvex::CTraceEnabled begin(Quorvex::kUnknown64, Expanded, false);
    trace.put(&begin);
    int status = 0;
    waitpid(child, &status, 0);
    for (std::uint64_t tick = 0; WIFSTOPPED(status); ++tick) {
        user_regs_struct registers{};
        if (ptrace(PTRACE_GETREGS, child, nullptr, &registers) != 0)
            break;
        Quorvex::CExecInsn instruction(tick, 0, static_cast<std::uint32_t>(child), registers.rip);
        trace.put(&instruction);
        if (tick + 1 == count) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            break;
        }
        // A signal that stopped the program is handed on to it, except for the traps of stepping.
        const int signal = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
        if (ptrace(PTRACE_SINGLESTEP, child, nullptr, signal) != 0 || waitpid(child, &status, 0) != child)
            break;
    }
    Quorvex::CTraceDisabled end;
    Quorvex::CEndOfTrace last;
    trace.put(&end);
    trace.put(&last);
    return WIFEXITED(status) ? WEXITSTATUS(status) : count > 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    if (argc < 4) {
        std::cerr << "usage: singlestep TRACE COUNT PROGRAM [ARGUMENTS...]\n";
        return 2;
    }
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        execvp(argv[3], argv + 3);
        std::perror(argv[3]);
        _exit(127);
    }
    Quorvex::CTraceFileWriterPaged trace(argv[1]);
    const int result = child > 0 ? record(child, std::strtoull(argv[2], nullptr, 10), trace) : 1;
    if (!trace.close()) {
        std::cerr << argv[1] << ": cannot be written\n";
        return 1;
    }
    return result;
}
