// Linked into cfmd and cfmctl by the router build (CFMD_SMALL) only.
//
// Neither program catches an exception: a failed allocation, a failed mutex
// call or a string index out of range ends it either way. With the C++ runtime linked statically, the
// library's throwing paths would bring in the unwinder, the exception
// runtime and the symbol demangler (about 100 KiB). These definitions take
// their place and end the process at once; the result is the same as an
// uncaught exception, without the weight.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

[[noreturn]] void fail(const char *what) {
  fprintf(stderr, "%s: fatal: %s\n", program_invocation_short_name, what);
  abort();
}

}  // namespace

namespace std {
void __throw_bad_alloc() { fail("out of memory"); }
void __throw_bad_array_new_length() { fail("bad array length"); }
void __throw_bad_function_call() { fail("empty function called"); }
void __throw_length_error(const char *what) { fail(what); }
void __throw_logic_error(const char *what) { fail(what); }
void __throw_invalid_argument(const char *what) { fail(what); }
void __throw_out_of_range(const char *what) { fail(what); }
void __throw_out_of_range_fmt(const char *what, ...) { fail(what); }
void __throw_system_error(int code) { fail(code == 0 ? "system error" : "thread call failed"); }
}  // namespace std

void *operator new(std::size_t size) {
  void *p = malloc(size != 0 ? size : 1);
  if (p == nullptr) fail("out of memory");
  return p;
}
void *operator new[](std::size_t size) { return operator new(size); }
void operator delete(void *p) noexcept { free(p); }
void operator delete(void *p, std::size_t) noexcept { free(p); }
void operator delete[](void *p) noexcept { free(p); }
void operator delete[](void *p, std::size_t) noexcept { free(p); }
