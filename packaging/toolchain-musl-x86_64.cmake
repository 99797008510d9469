# Static x86_64 build against musl (tools/build-static.sh uses it):
#   cmake -S . -B build-static-x86_64 -DCMAKE_TOOLCHAIN_FILE=packaging/toolchain-musl-x86_64.cmake \
#         -DCMAKE_BUILD_TYPE=Device -DKOLTA_TESTS=OFF
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(KOLTA_GCC_TRIPLE x86_64-linux-gnu)
set(KOLTA_MUSL_TRIPLE x86_64-linux-musl)
include(${CMAKE_CURRENT_LIST_DIR}/musl-static.cmake)
