// Marks the definitions that form the library's interface. Everything else is
// hidden by default (-fvisibility=hidden), and the version script has the last
// word on what the dynamic symbol table shows.
#pragma once

#define SHM_EXPORT extern "C" __attribute__((visibility("default")))
// Data objects take their C linkage from the declaration in libshm.h.
#define SHM_EXPORT_DATA __attribute__((visibility("default")))
