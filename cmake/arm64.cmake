# Cross-compiling for 64-bit Arm: Debian's compiler, and the libraries of an arm64 root that is unpacked in
# the folder PM_ARM64_ROOT (./dev arm64 makes one; a board's own root will do as well).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# CMake reads this file again for each of its trials.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PM_ARM64_ROOT)
set(CMAKE_SYSROOT ${PM_ARM64_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${PM_ARM64_ROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${PM_ARM64_ROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${PM_ARM64_ROOT}/usr/share/pkgconfig)

# The test programs can't run here: they are asked for their cases when the tests are run.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)
