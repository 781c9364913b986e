// A driver that counts the calls of the device layer. Only its reads do something: they read one byte.
//
// Owner:   the process. There is one driver.
#pragma once

#include "Common/OS/dev.h"

#include <atomic>
#include <unistd.h>

namespace countingdriver
{

inline int opens, closes, writes, ioctls;
inline std::atomic<int> reads, completions;
inline UInt32 openResult, closeResult; // what the driver returns

inline UInt32 Open(DEVCB * /*pDev*/)
{
    opens++;
    return openResult;
}

inline UInt32 Close(DEVCB * /*pDev*/)
{
    closes++;
    return closeResult;
}

inline void Read(DEVCB *pDev, IORB *pIORB)
{
    reads++;
    pIORB->actLen = read(pDev->fd, pIORB->pBuffer, pIORB->reqLen) == 1;
}

inline void Write(DEVCB * /*pDev*/, IORB * /*pIORB*/)
{
    writes++;
}

inline void Ioctl(DEVCB * /*pDev*/, IORB * /*pIORB*/)
{
    ioctls++;
}

inline void Completed(IORB * /*pIORB*/)
{
    completions++;
}

} // namespace countingdriver
