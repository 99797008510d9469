# Fully static builds against musl, with Debian's musl-dev for the target and
# Debian's GCC for it (the native one or a cross compiler). Included by the
# toolchain-musl-*.cmake files after they set:
#   KOLTA_GCC_TRIPLE   the GCC's prefix (x86_64-linux-gnu, arm-linux-gnueabihf, ...)
#   KOLTA_MUSL_TRIPLE  musl-dev's directory name (x86_64-linux-musl, ...)
#
# The C++ headers are GCC's own, used for their header-only parts; the C
# headers and the C library are musl's. No C++ runtime library is linked:
# lib/cxx_support.cpp holds the little that the programs need from one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KOLTA_GCC_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KOLTA_GCC_TRIPLE}-g++)
set(KOLTA_MUSL_STATIC ON CACHE BOOL "Static build against musl" FORCE)

set(musl_include /usr/include/${KOLTA_MUSL_TRIPLE})
set(musl_lib /usr/lib/${KOLTA_MUSL_TRIPLE})
if(NOT EXISTS ${musl_lib}/libc.a)
  message(FATAL_ERROR "no ${musl_lib}/libc.a: install musl-dev for this architecture")
endif()

# The compiler's C++ header directories, in its own order, and its private
# headers (stddef.h, stdarg.h); every other system directory is left out.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -xc++ -E -v /dev/null
                OUTPUT_QUIET ERROR_VARIABLE search RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "${CMAKE_CXX_COMPILER} does not run: install g++-${KOLTA_GCC_TRIPLE}")
endif()
string(REGEX REPLACE ".*search starts here:\n(.*)End of search list.*" "\\1" search "${search}")
string(REPLACE "\n" ";" search "${search}")
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include
                OUTPUT_VARIABLE gcc_include OUTPUT_STRIP_TRAILING_WHITESPACE)
set(include_flags "-nostdinc")
foreach(dir IN LISTS search)
  string(STRIP "${dir}" dir)
  if(dir MATCHES "/c\\+\\+/")
    string(APPEND include_flags " -isystem ${dir}")
  endif()
endforeach()
string(APPEND include_flags " -isystem ${musl_include} -isystem ${gcc_include}")
string(APPEND include_flags " -include ${CMAKE_CURRENT_LIST_DIR}/musl-static.h")

# No position-independent code: a static program is loaded where it was linked.
set(CMAKE_C_FLAGS_INIT "${include_flags} -fno-pie")
set(CMAKE_CXX_FLAGS_INIT "${include_flags} -fno-pie -fno-threadsafe-statics -fno-rtti")

# No read-only relocation segment: a static program has next to nothing to
# protect there, and on arm64 its 64 KiB page alignment alone would add as
# much to the file.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-z,norelro")

# The link line spelled out: musl's start files, the compiler's own around the
# program, then musl's C library and the compiler's helper routines.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=crtbeginT.o
                OUTPUT_VARIABLE crtbegin OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=crtend.o
                OUTPUT_VARIABLE crtend OUTPUT_STRIP_TRAILING_WHITESPACE)
foreach(lang C CXX)
  set(CMAKE_${lang}_LINK_EXECUTABLE
      "<CMAKE_${lang}_COMPILER> <FLAGS> <CMAKE_${lang}_LINK_FLAGS> <LINK_FLAGS> -static -no-pie -nostdlib ${musl_lib}/crt1.o ${musl_lib}/crti.o ${crtbegin} <OBJECTS> -o <TARGET> <LINK_LIBRARIES> -L${musl_lib} -Wl,--start-group -lc -lgcc -Wl,--end-group ${crtend} ${musl_lib}/crtn.o")
endforeach()

set(CMAKE_FIND_ROOT_PATH /usr/lib/${KOLTA_MUSL_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
