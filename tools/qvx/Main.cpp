#include "Verbs.h"
#include "quorvex/platform/OutputFile.h"
#include "quorvex/platform/System.h"

#include <iostream>

int main(int argc, char** argv) {
    Quorvex::platform::OutputFile::prepareProcess();
    Quorvex::platform::makeStandardStreamsBinary();
    std::ios::sync_with_stdio(false);
    return qvx::run({argv + 1, argv + argc});
}
