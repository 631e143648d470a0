// SPDX-License-Identifier: Apache-2.0
// Nothing but the headers that CMake compiles once for all tests.
