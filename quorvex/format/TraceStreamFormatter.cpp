#include "quorvex/format/TraceStreamFormatter.h"

#include <istream>
#include <ostream>

namespace Quorvex {

bool TraceStreamFormatter::read(std::istream& in, unsigned count, unsigned char* dst) {
    return dst && in.read(reinterpret_cast<char*>(dst), count).good();
}

bool TraceStreamFormatter::write(std::ostream& out, unsigned count, const unsigned char* src) {
    return src && out.write(reinterpret_cast<const char*>(src), count).good();
}

} // namespace Quorvex
