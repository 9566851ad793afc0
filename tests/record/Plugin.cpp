// A module that a recorded program loads; compiled under two names, so that both may stand at the same address.

volatile int g_value;

extern "C" void NAME() {
    g_value = g_value + 1;
}
