# The part of the cross toolchain files that every Debian cross compiler
# shares; KOLTA_CROSS_TRIPLE names the compiler before this is included.
set(CMAKE_C_COMPILER ${KOLTA_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KOLTA_CROSS_TRIPLE}-g++)

# Libraries and headers come from the cross sysroot only; programs run on
# the build host.
set(CMAKE_FIND_ROOT_PATH /usr/${KOLTA_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
