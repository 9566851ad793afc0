// The same where nothing is left of what it tells.
#define QUORVEX_NO_TRACE
#define TELL tellNothing
#include "tests/instrument/Told.cpp"
