#include "quorvex/analysis/TraceTables.h"

namespace Quorvex {} // namespace Quorvex
