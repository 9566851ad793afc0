#include "Verbs.h"

namespace qvx {

void addRecord(Program&) {} // there is no library that could be preloaded

} // namespace qvx
