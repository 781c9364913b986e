// The way to the operating system's log. It is a unit of its own, because the system's <syslog.h> must not meet ours.
#pragma once

#include "Common/types.h"

// Logs the text unchanged. priority combines level and facility, with the system's numbers.
void HostSyslog(Int32 priority, const char *text);
