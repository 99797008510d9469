# Cross build for 64-bit ARM devices (AArch64) with Debian's cross
# compiler (package g++-aarch64-linux-gnu):
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=packaging/toolchain-arm64.cmake \
#         -DCMAKE_BUILD_TYPE=Device -DKOLTA_TESTS=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(KOLTA_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${KOLTA_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KOLTA_CROSS_TRIPLE}-g++)

# Libraries and headers come from the cross sysroot only; programs run on
# the build host.
set(CMAKE_FIND_ROOT_PATH /usr/${KOLTA_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# For running the results on the build host: qemu-aarch64 -L /usr/aarch64-linux-gnu
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/${KOLTA_CROSS_TRIPLE})
