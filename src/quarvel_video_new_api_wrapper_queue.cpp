#include "ruvo_internal.h"
#include "ruvo_log.h"
