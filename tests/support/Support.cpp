// Replacements of C library calls for the unit tests.
