# Cross build for the controller's 32-bit ARM (hard-float) Linux.
#
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
#   cmake --build build-arm -j"$(nproc)"
#   ctest --test-dir build-arm --output-on-failure     # every test runs under qemu-arm
#
# Needs Debian's g++-arm-linux-gnueabihf and qemu-user (scripts/setup-deps.sh).

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMP_IPP_ARM_TRIPLE arm-linux-gnueabihf)
set(CMP_IPP_ARM_SYSROOT /usr/${CMP_IPP_ARM_TRIPLE})

set(CMAKE_C_COMPILER ${CMP_IPP_ARM_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${CMP_IPP_ARM_TRIPLE}-g++)

# Look for libraries and headers only in the target's tree, programs only on the
# host: a host libgtest or libbenchmark must never be linked into an ARM binary.
set(CMAKE_FIND_ROOT_PATH ${CMP_IPP_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# 64-bit file offsets. Without them a 32-bit readdir() under qemu-user on a
# 64-bit host fails with EOVERFLOW (ext4 hands out 64-bit directory offsets),
# so directory scans such as the corpus tests see nothing, and a spooled
# document stops at 2 GiB (EFBIG).
# 64-bit time_t (glibc 2.34 and later; needs the 64-bit offsets): with the
# default 32-bit one, time() and gmtime() end in January 2038, well within a
# printer's life, and the printer's date-times would wrap to 1901.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")

# ctest (and the test discovery after each build) start ARM binaries through
# qemu; -L lets it find the ARM dynamic loader and libstdc++.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;${CMP_IPP_ARM_SYSROOT})

# There is no ARM GoogleTest package: build it from Debian's sources. Google
# Benchmark is only installed for the host, so benchmarks are off here.
# Cache entries without FORCE, so -D on the command line still wins.
set(CMP_IPP_GTEST_SOURCE /usr/src/googletest CACHE PATH "Build GoogleTest from these sources (cross builds)")
set(CMP_IPP_BUILD_BENCH OFF CACHE BOOL "Build the benchmarks")
