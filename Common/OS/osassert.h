// Assertions that stop the program on a programming error. They are part of each contract, so every build has them.
#pragma once

// Flushes standard output, prints "Assertion failed: <text>, file <file>, line <line>, function <function>" to standard
// error, and aborts. The abort comes in any case. If another thread holds the output, or if nobody reads it, the output
// is given up: the call waits one second for the lock of the stream, one for the flush, and one for the message.
// Only one assertion prints. A second one at the same time prints nothing.
[[noreturn]] void os_assert_failed(const char *text, const char *file, int line, const char *function);

// The condition is always evaluated, exactly once. People search traces for the message, so a message never changes. It
// is not always what the compiler would make of the condition.
#define os_assert(condition, text)                                                                                     \
    ((condition) ? static_cast<void>(0) : os_assert_failed(text, __FILE__, __LINE__, __func__))
