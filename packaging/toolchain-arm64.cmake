# Cross build for 64-bit ARM devices (AArch64) with Debian's cross
# compiler (package g++-aarch64-linux-gnu):
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=packaging/toolchain-arm64.cmake \
#         -DCMAKE_BUILD_TYPE=Device -DKOLTA_TESTS=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(KOLTA_CROSS_TRIPLE aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)

# For running the results on the build host: qemu-aarch64 -L /usr/aarch64-linux-gnu
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/${KOLTA_CROSS_TRIPLE})
