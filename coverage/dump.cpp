// A program that aborts would write no counts. In the coverage build abort leads here first, so that the code of a
// failed assertion counts as well. The names are the linker's and the compiler's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" void __gcov_dump();
extern "C" [[noreturn]] void __real_abort();

extern "C" [[noreturn]] void __wrap_abort()
{
    __gcov_dump();
    __real_abort();
}
// NOLINTEND(bugprone-reserved-identifier)
