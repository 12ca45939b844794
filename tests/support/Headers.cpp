// Compiled for nothing but the precompiled header that goes with it.
