// The way to the operating system's log. A unit of its own, because the system's <syslog.h> must
// not meet ours.
#pragma once

#include "Common/types.h"

// Logs text as it is; priority combines level and facility as the system numbers them.
void HostSyslog(Int32 priority, const char *text);
