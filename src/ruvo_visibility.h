// Marks a declaration as internal to the library: reachable by its sources and by the
// tests through the static build, never exported from the shared library.
#pragma once

#define RUVO_INTERNAL __attribute__((visibility("hidden")))
