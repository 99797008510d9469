# Cross build for 32-bit ARM devices (ARMv7, hard-float) with Debian's cross
# compiler (package g++-arm-linux-gnueabihf):
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=packaging/toolchain-armhf.cmake \
#         -DCMAKE_BUILD_TYPE=Device -DKOLTA_TESTS=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KOLTA_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${KOLTA_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KOLTA_CROSS_TRIPLE}-g++)

# Libraries and headers come from the cross sysroot only; programs run on
# the build host.
set(CMAKE_FIND_ROOT_PATH /usr/${KOLTA_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# For running the results on the build host: qemu-arm -L /usr/arm-linux-gnueabihf
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/${KOLTA_CROSS_TRIPLE})
