// Nothing but the headers that CMake compiles once for all tests.
