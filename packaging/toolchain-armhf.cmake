# Cross build for 32-bit ARM devices (ARMv7, hard-float) with Debian's cross
# compiler (package g++-arm-linux-gnueabihf):
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=packaging/toolchain-armhf.cmake \
#         -DCMAKE_BUILD_TYPE=Device -DKOLTA_TESTS=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KOLTA_CROSS_TRIPLE arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)

# For running the results on the build host: qemu-arm -L /usr/arm-linux-gnueabihf
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/${KOLTA_CROSS_TRIPLE})
