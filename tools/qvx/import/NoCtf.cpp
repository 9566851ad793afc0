/// Where there is no libbabeltrace2.

#include "../Verbs.h"
#include "Importers.h"

namespace qvx {

void readCtf(const std::string& name, ImportedTrace&) {
    throw Failure(name, "is a directory, as CTF traces are, but this build of qvx has no CTF: it was made without "
                        "libbabeltrace2");
}

} // namespace qvx
