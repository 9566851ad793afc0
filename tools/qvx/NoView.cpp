#include "Verbs.h"

namespace qvx {

void addView(Program&) {} // there is no library that could serve the page

} // namespace qvx
