#include "bench/standin/processor.h"

std::atomic<UInt32> processor;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names for them
extern "C" UInt32 __wrap__Z15GetProcessorNumv()
{
    return processor;
}

extern "C" Int32 __wrap__Z16GetNumProcessorsv()
{
    return 4;
}
// NOLINTEND(bugprone-reserved-identifier)
