#pragma once

/// The columns of all tables: what they are called and mean, for whoever fills, tells or documents them.

#include "quorvex/analysis/TableFacts.h"

#include <cstddef>
#include <span>
#include <string_view>

namespace Quorvex::columns {

inline constexpr bool kName = true, kPlain = false;
inline constexpr bool kNullable = true, kGiven = false;

// What several tables have.
inline constexpr TableColumn kFile{"file", "i", kPlain, kGiven, "", "which of the files, from 0 on"};
inline constexpr TableColumn kOffset{"file_offset", "l",     kPlain,
                                     kGiven,        "bytes", "where the packet begins in its file"};
inline constexpr TableColumn kTick{"tick", "l", kPlain, kNullable, "ticks", "when"};
inline constexpr TableColumn kTime{"time_ns", "l",  kPlain,
                                   kNullable, "ns", "the same since tick 0; null where the file tells no clock"};
inline constexpr TableColumn kCore{"core", "l", kPlain, kNullable, "", "where: the core"};
inline constexpr TableColumn kThread{"thread", "l", kPlain, kNullable, "", "in which thread"};
inline constexpr TableColumn kThreadName{"thread_name", "u", kName,
                                         kNullable,     "",  "what that is called, or else its program"};
inline constexpr TableColumn kAddress{"address", "l", kPlain,
                                      kNullable, "",  "of the instruction, its 64 bits as a signed number"};
inline constexpr TableColumn kValue{
    "value",   "l", kPlain,
    kNullable, "",  "the first eight bytes of data, lowest first, as a signed number; null without data"};
inline constexpr TableColumn kData{"data", "z", kPlain, kGiven, "", "the bytes that were recorded, lowest first"};

inline constexpr TableColumn kSpans[] = {
    kFile,
    {"thread", "l", kPlain, kNullable, "", "in which thread; null where that is not known, then by core"},
    kThreadName,
    {"core", "l", kPlain, kNullable, "", "on which it is entered; without an enter, left"},
    {"process", "l", kPlain, kNullable, "", "that its core has entered by then, by its number"},
    {"function_id", "l", kPlain, kNullable, "", "the function's number in its file"},
    {"function", "u", kName, kNullable, "", "its name"},
    {"start_tick", "l", kPlain, kNullable, "ticks", "when it is entered"},
    {"end_tick", "l", kPlain, kNullable, "ticks", "when it is left, or taken to end"},
    {"duration_ticks", "l", kPlain, kNullable, "ticks", "from start to end; 0 where time goes back"},
    {"self_ticks", "l", kPlain, kNullable, "ticks", "the same less what it called"},
    {"callee_ticks", "l", kPlain, kGiven, "ticks", "durations of what it called itself, as far as seen"},
    {"start_ns", "l", kPlain, kNullable, "ns", "start_tick since tick 0; null where the file tells no clock"},
    {"end_ns", "l", kPlain, kNullable, "ns", "end_tick, likewise"},
    {"duration_ns", "l", kPlain, kNullable, "ns", "duration_ticks, likewise"},
    {"self_ns", "l", kPlain, kNullable, "ns", "self_ticks, likewise"},
    {"depth", "i", kPlain, kGiven, "", "calls around it in its thread"},
    {"parent_id", "l", kPlain, kNullable, "", "the function that called it, by its number in its file"},
    {"parent", "u", kName, kNullable, "", "the name of that"},
    {"has_enter", "b", kPlain, kGiven, "", "its enter is among the packets that are read"},
    {"has_leave", "b", kPlain, kGiven, "", "likewise its leave"},
    {"enter_offset", "l", kPlain, kNullable, "bytes", "where the packet of its enter begins in its file"},
    {"leave_offset", "l", kPlain, kNullable, "bytes", "likewise of its leave"},
};

inline constexpr TableColumn kPackets[] = {
    kFile,
    kOffset,
    kTick,
    kTime,
    {"kind", "u", kName, kGiven, "", "the name of its kind, of a relative one that of the absolute"},
    kCore,
    kThread,
    kThreadName,
    kAddress,
    {"id", "l", kPlain, kNullable, "", "the number of what it is about: of the function that is entered"},
    {"name", "u", kName, kNullable, "", "the name of that"},
    {"text", "u", kPlain, kNullable, "", "the text behind it"},
};

inline constexpr TableColumn kFunctions[] = {
    kFile,
    {"function_id", "l", kPlain, kGiven, "", "its number in its file"},
    {"function", "u", kName, kGiven, "", "its name"},
};

inline constexpr TableColumn kThreads[] = {
    kFile,
    {"thread", "l", kPlain, kNullable, "", "its number; null for packets of no known thread"},
    kThreadName,
    {"packets", "l", kPlain, kGiven, "", "how many tell that they are of it"},
    {"first_tick", "l", kPlain, kNullable, "ticks", "the lowest tick of these"},
    {"last_tick", "l", kPlain, kNullable, "ticks", "the highest one"},
    {"first_ns", "l", kPlain, kNullable, "ns", "first_tick since tick 0; null where the file tells no clock"},
    {"last_ns", "l", kPlain, kNullable, "ns", "last_tick, likewise"},
};

inline constexpr TableColumn kCounters[] = {
    kFile,
    kOffset,
    kTick,
    kTime,
    kCore,
    kThread,
    kThreadName,
    {"counter_id", "l", kPlain, kGiven, "", "the counter's number in its file"},
    {"counter", "u", kName, kNullable, "", "its name"},
    {"value", "g", kPlain, kNullable, "", "its value; null where it has more than 64 bits"},
    {"integer", "l", kPlain, kNullable, "", "the same exactly; null where the counter is of floating point"},
    {"bits", "l", kPlain, kNullable, "", "the same as its 64 bits, whatever the counter is of"},
    {"index1", "l", kPlain, kNullable, "", "the first index of a counter with dimensions"},
    {"index2", "l", kPlain, kNullable, "", "the second one"},
};

inline constexpr TableColumn kVariables[] = {
    kFile,
    kOffset,
    kTick,
    kTime,
    kCore,
    kThread,
    kThreadName,
    kAddress,
    {"variable_id", "l", kPlain, kGiven, "", "the variable's number in its file"},
    {"variable", "u", kName, kNullable, "", "its name"},
    {"is_write", "b", kPlain, kGiven, "", "it is written, not read"},
    kValue,
    kData,
};

inline constexpr TableColumn kEvents[] = {
    kFile,
    kOffset,
    kTick,
    kTime,
    kCore,
    kThread,
    kThreadName,
    kAddress,
    {"event_id", "l", kPlain, kGiven, "", "the event's number in its file"},
    {"event", "u", kName, kNullable, "", "its name"},
    kValue,
    kData,
};

inline constexpr TableColumn kMessages[] = {
    kFile,
    kOffset,
    kTick,
    kTime,
    {"priority", "i", kPlain, kGiven, "", "from 0 on"},
    {"text", "u", kPlain, kGiven, "", "the message"},
};

inline constexpr TableColumn kStates[] = {
    kFile,
    kOffset,
    kTick,
    kTime,
    kCore,
    {"machine_id", "l", kPlain, kGiven, "", "the state machine's number in its file"},
    {"machine", "u", kName, kNullable, "", "its name"},
    {"instance_id", "l", kPlain, kGiven, "", "the instance's number in the machine"},
    {"instance", "u", kName, kNullable, "", "its name"},
    {"transition_id", "l", kPlain, kNullable, "", "the transition's number in the machine; null for a first state"},
    {"transition", "u", kName, kNullable, "", "its name"},
    {"state_id", "l", kPlain, kNullable, "",
     "the number in the machine of the state that is come to; null where the transition is not defined"},
    {"state", "u", kName, kNullable, "", "its name"},
    kData,
};

inline constexpr TableColumn kLosses[] = {
    kFile,
    {"file_offset", "l", kPlain, kGiven, "bytes", "where it begins"},
    {"reason", "u", kName, kGiven, "",
     "damage (could not be read), broken (the recorder lost packets), cut (the last packet is), end (is missing)"},
    {"size", "l", kPlain, kNullable, "bytes", "how many are lost, where that is known"},
    {"tick", "l", kPlain, kNullable, "ticks", "of the packet before, or of the broken trace"},
    {"time_ns", "l", kPlain, kNullable, "ns", "the same since tick 0; null where the file tells no clock"},
};

/// Which of a table's columns has that name. Only at compile time: there is one.
consteval unsigned at(std::span<const TableColumn> columns, std::string_view name) {
    unsigned i = 0;
    while (columns[i].name != name) // beyond the last, this is no constant
        ++i;
    return i;
}

} // namespace Quorvex::columns
