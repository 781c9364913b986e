// Assertions that stop the program on a programming error. They are part of the contract, so they
// stay on in every build.
#pragma once

// Flushes standard output, prints "Assertion failed: <text>, file <file>, line <line>, function <function>" to standard
// error, and aborts. The abort comes in any case. Output that another thread holds, or that nobody reads, is given up:
// a second is spent on the stream's lock, one on the flush, one on the message. One assertion stops the program: a
// second one at the same time prints nothing.
[[noreturn]] void os_assert_failed(const char *text, const char *file, int line, const char *function);

// The condition is always evaluated, once. People search traces for the text, so that it stays as it is: it is not
// always what the compiler would make of the condition.
#define os_assert(condition, text)                                                                                     \
    ((condition) ? static_cast<void>(0) : os_assert_failed(text, __FILE__, __LINE__, __func__))
