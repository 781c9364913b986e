// The processor that the run-time takes itself for. There are four. It stands before GetProcessorNum and
// GetNumProcessors.
#pragma once

#include "Common/types.h"

#include <atomic>

extern std::atomic<UInt32> processor;
