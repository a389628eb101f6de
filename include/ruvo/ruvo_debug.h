// Diagnostics: the debug mask read from the marker files, and the optional log file.
#pragma once

#ifndef RUVO_EXPORT
#define RUVO_EXPORT __attribute__((visibility("default")))
#endif

RUVO_EXPORT void ruvo_interface_debug_init();
RUVO_EXPORT void ruvo_dbg_enable();
RUVO_EXPORT void ruvo_dbg_disable();
RUVO_EXPORT void messageWrite2File(char* str, int len);
RUVO_EXPORT int DBG_ChkPrtLevel();
