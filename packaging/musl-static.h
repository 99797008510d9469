// Read first by every file of the static musl builds. GCC's C++ headers were
// configured for the GNU C library: they ask its version, and name a few of
// its types and functions in inline code. musl has the same things under
// their standard names, or the programs never reach that code.
#pragma once
#define __GLIBC_PREREQ(major, minor) 0

#ifdef __cplusplus
#include <locale.h>
#include <pthread.h>
#include <time.h>
// The locale handle of <bits/c++locale.h>.
typedef locale_t __locale_t;
// Declared so that <bits/std_mutex.h> compiles; nothing calls it.
extern "C" int pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t,
                                      const struct timespec*);
#endif
