#include "softupdate/progressctrl/progressctrl.h"

#include "Common/OS/osassert.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

progressCtrlT gProgressCtrl;

namespace
{

char szCommPipe[256];
Int32 nLowerLimit;
Int32 nWidth;
Int32 nLastPos; // the last position written

// Returns 0, or 1 when the pipe cannot be opened. A write that fails is ignored: the reader has gone.
int WritePosition(Int32 nActualPos)
{
    const int fd = open(szCommPipe, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return 1;
    char number[16];
    const int length = std::snprintf(number, sizeof number, "%d", nActualPos);
    [[maybe_unused]] const ssize_t written = write(fd, number, static_cast<size_t>(length));
    close(fd);
    return 0;
}

} // namespace

void updateProgress(Int32 nBytesDone)
{
    if (gProgressCtrl.bDoUpdate == 0 || gProgressCtrl.nTotBytesToDo == 0)
        return;
    gProgressCtrl.nTotBytesDone = static_cast<Int32>(Int64{gProgressCtrl.nTotBytesDone} + nBytesDone);
    gProgressCtrl.nPercentDone =
        static_cast<Int32>(Int64{gProgressCtrl.nTotBytesDone} * 100 / gProgressCtrl.nTotBytesToDo);
    progressCtrlSetPos(gProgressCtrl.nPercentDone);
}

int progressCtrlInit(const char *pszCommPipe, Int32 nRangeLowerLimit, Int32 nRangeUpperLimit)
{
    os_assert(pszCommPipe != nullptr, "pszCommPipe");
    std::snprintf(szCommPipe, sizeof szCommPipe, "%s", pszCommPipe);
    nLowerLimit = nRangeLowerLimit;
    nWidth = static_cast<Int32>(Int64{nRangeUpperLimit} - nRangeLowerLimit);
    nLastPos = 0;
    return 0;
}

int progressCtrlSetPos(Int32 nPos)
{
    const Int32 nActualPos = static_cast<Int32>(Int64{nWidth} * nPos / 100 + nLowerLimit);
    if (nActualPos <= nLastPos)
        return 0;
    nLastPos = nActualPos;
    const int result = WritePosition(nActualPos);
    if (result != 0)
        std::printf("progressCtrlSetPos: could not open %s\n", szCommPipe);
    std::printf("percentdone: [%d]\n", nActualPos);
    std::fflush(stdout);
    return result;
}
