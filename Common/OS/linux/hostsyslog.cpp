#include "Common/OS/linux/hostsyslog.h"

#include <syslog.h>

void HostSyslog(Int32 priority, const char *text)
{
    syslog(priority, "%s", text);
}
