// The few routines of the C++ runtime library that the programs reach, for
// the static builds that link none: allocation through malloc, and the
// library's error paths, which end the program as an uncaught exception would
// (the programs are built without exceptions), with the same message.
#include <cstddef>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

[[noreturn]] void terminate_with(const char* type, const char* what) {
  std::fprintf(stderr, "terminate called after throwing an instance of '%s'\n  what():  %s\n", type,
               what);
  std::abort();
}

void* allocate(std::size_t size) {
  if (void* p = std::malloc(size != 0 ? size : 1)) return p;
  terminate_with("std::bad_alloc", "std::bad_alloc");
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace std {

void __throw_bad_alloc() { terminate_with("std::bad_alloc", "std::bad_alloc"); }
void __throw_bad_array_new_length() {
  terminate_with("std::bad_array_new_length", "std::bad_array_new_length");
}
void __throw_bad_function_call() { terminate_with("std::bad_function_call", "bad_function_call"); }
void __throw_length_error(const char* what) { terminate_with("std::length_error", what); }
void __throw_logic_error(const char* what) { terminate_with("std::logic_error", what); }
void __throw_out_of_range(const char* what) { terminate_with("std::out_of_range", what); }
void __throw_invalid_argument(const char* what) { terminate_with("std::invalid_argument", what); }
void __throw_out_of_range_fmt(const char* fmt, ...) {
  char what[256];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(what, sizeof what, fmt, ap);
  va_end(ap);
  terminate_with("std::out_of_range", what);
}

}  // namespace std
