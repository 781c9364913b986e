// A function of the C library, for the stand-in of the same name. It needs only the C library, so the preload library
// can use it.
#pragma once

#include <atomic>
#include <dlfcn.h>

namespace bench
{

template <class Function> class Real
{
public:
    constexpr explicit Real(const char *name) : name_(name) {}
    template <class... Arguments> auto operator()(Arguments... arguments)
    {
        Function *function = function_.load(std::memory_order_relaxed);
        if (function == nullptr) {
            function = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name_));
            function_.store(function, std::memory_order_relaxed);
        }
        return function(arguments...);
    }

private:
    const char *name_;
    std::atomic<Function *> function_{nullptr};
};

} // namespace bench
