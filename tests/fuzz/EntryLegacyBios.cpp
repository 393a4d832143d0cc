// The fuzz target's body under a name of its own, for the replay test.
#define TARVD_FUZZ_ENTRY FuzzEntryLegacyBios
#include "../../fuzz/FuzzLegacyBios.cpp"
