// The library's own definitions of the dynamic loader's lookup calls. They
// only fail. A process whose symbol resolution reaches these before the
// system's (a program linked against the library, which comes before libc in
// its search order) finds no log hook by name and must assign SHML_vondprintf
// itself; see README.md.
//
// <dlfcn.h> is deliberately not included: its declarations carry exception
// specifications that these plain C definitions need not repeat.
#include "common/export.h"

SHM_EXPORT void* dlopen(const char* /*file*/, int /*mode*/) { return nullptr; }

SHM_EXPORT void* dlsym(void* /*handle*/, const char* /*name*/) { return nullptr; }

SHM_EXPORT int dlclose(void* /*handle*/) { return -1; }
