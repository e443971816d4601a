# Cross build for 32-bit ARM hard-float boards, with Debian's cross compiler
# (g++-arm-linux-gnueabihf) and the target's libraries from Debian multiarch
# (libmms-dev:armhf, libgtest-dev:armhf). scripts/cross-build.sh installs
# both and uses this file:
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# Header-only Boost comes from the host's /usr/include: the same headers
# serve every architecture.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(HALVARINE_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${HALVARINE_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${HALVARINE_CROSS_TRIPLE}-g++)

# Multiarch: find_library and find_package look in /usr/lib/<triple> first,
# so -lmms resolves to the ARM library and never to the host's. Headers stay
# shared in /usr/include, which is why there is no CMAKE_SYSROOT here.
set(CMAKE_LIBRARY_ARCHITECTURE ${HALVARINE_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH /usr/${HALVARINE_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# ARM programs built here (unit tests, gtest discovery at build time) run
# through user-mode qemu. No -L prefix: libmms0:armhf brings the multiarch
# libc6:armhf, and qemu's -L /usr/<triple> would pair the cross package's
# dynamic loader with that libc, two different glibc builds, which crashes
# as soon as a thread starts. libstdc++6:armhf completes the multiarch set.
# Override with -DHALVARINE_EMULATOR=... or set it empty on a real board.
set(HALVARINE_EMULATOR qemu-arm
  CACHE STRING "Command prefix that runs target binaries on the build host")
set(CMAKE_CROSSCOMPILING_EMULATOR ${HALVARINE_EMULATOR})

# Debian's name for the target architecture, for the package.
set(HALVARINE_DEB_ARCH armhf)
