#include "Verbs.h"

#include <iostream>

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    return qvx::run({argv + 1, argv + argc});
}
