# Cross build for 64-bit ARM Linux with Debian's cross compiler
# (crossbuild-essential-arm64) against the arm64 multiarch packages
# (libsuperlu-dev:arm64, libgtest-dev:arm64, ...). Test programs run through
# qemu-user, so ctest and gtest_discover_tests work as in a native build.
#
#   cmake -S . -B build-arm64 \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
#
# scripts/cross-arm64.sh installs the packages, builds and runs the tests.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(softmatte_cross_triplet aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${softmatte_cross_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${softmatte_cross_triplet}-g++)

# Debian keeps arm64 libraries and their CMake packages in
# /usr/lib/aarch64-linux-gnu and the C library in /usr/aarch64-linux-gnu.
# Searching only below these roots, in the aarch64 multiarch folders, keeps
# the host's x86-64 packages out; programs (pkg-config, protoc, ...) are the
# host's.
set(CMAKE_LIBRARY_ARCHITECTURE ${softmatte_cross_triplet})
set(CMAKE_FIND_ROOT_PATH /usr/${softmatte_cross_triplet} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR}
    /usr/lib/${softmatte_cross_triplet}/pkgconfig:/usr/share/pkgconfig)

# qemu-user runs the arm64 programs on the arm64 runtime of the multiarch
# packages (libc6:arm64, libstdc++6:arm64), the one SuperLU and libpng are
# built against. No -L /usr/aarch64-linux-gnu: that prefix would bring the
# cross compiler's dynamic loader, which does not match the multiarch
# libc.so.6 the programs then load, and thread creation hangs.
find_program(softmatte_qemu NAMES qemu-aarch64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${softmatte_qemu})
