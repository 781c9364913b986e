#include "devlib/haldenflash/delay.h"

#include "Common/OS/osassert.h"

#include <sys/select.h>

void Delay(Int32 delay_usecs)
{
    os_assert(delay_usecs >= 0, "delay_usecs >= 0"); // every wait would fail, and start over
    timeval time{};
    do {
        time = {0, delay_usecs}; // a second and more is accepted in this member
    } while (select(0, nullptr, nullptr, nullptr, &time) < 0);
}
