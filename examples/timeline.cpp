// Tells what happened when, in the order of ticks, however many traces there are.
//
//     timeline TRACE...

#include "quorvex/analysis/Trace.h"

#include <exception>
#include <iostream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    try {
        for (const auto& packet : Quorvex::trace(std::vector<std::string>(argv + 1, argv + argc))) {
            if (const auto time = packet.nanoseconds())
                std::cout << *time / 1'000'000'000 << " s\t";
            std::cout << packet.kind();
            if (const auto about = packet.name().empty() ? packet.text() : packet.name(); !about.empty())
                std::cout << '\t' << about;
            if (const auto value = packet.field("Value"))
                std::cout << " is " << *value;
            std::cout << '\n';
        }
    } catch (const std::exception& error) {
        std::cerr << "timeline: " << error.what() << '\n';
        return 1;
    }
}
