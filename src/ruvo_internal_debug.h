// Internals of the diagnostics: the debug mask every message tests and the log file the
// debug calls open.
#pragma once

#include <stdio.h>

#include "ruvo/ruvo_debug.h"
#include "ruvo_visibility.h"

extern int g_ruvo_logmask RUVO_INTERNAL;
extern FILE* gLogMsgFile RUVO_INTERNAL;
