# Static armhf build against musl (tools/build-static.sh uses it):
#   cmake -S . -B build-static-armhf -DCMAKE_TOOLCHAIN_FILE=packaging/toolchain-musl-armhf.cmake \
#         -DCMAKE_BUILD_TYPE=Device -DKOLTA_TESTS=OFF
set(CMAKE_SYSTEM_PROCESSOR arm)
set(KOLTA_GCC_TRIPLE arm-linux-gnueabihf)
set(KOLTA_MUSL_TRIPLE arm-linux-musleabihf)
include(${CMAKE_CURRENT_LIST_DIR}/musl-static.cmake)
