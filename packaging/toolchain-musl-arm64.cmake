# Static arm64 build against musl (tools/build-static.sh uses it):
#   cmake -S . -B build-static-arm64 -DCMAKE_TOOLCHAIN_FILE=packaging/toolchain-musl-arm64.cmake \
#         -DCMAKE_BUILD_TYPE=Device -DKOLTA_TESTS=OFF
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(KOLTA_GCC_TRIPLE aarch64-linux-gnu)
set(KOLTA_MUSL_TRIPLE aarch64-linux-musl)
include(${CMAKE_CURRENT_LIST_DIR}/musl-static.cmake)
