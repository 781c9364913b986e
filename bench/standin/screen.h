// Somebody who reads standard output, and does something whenever a piece of text appears there.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace bench
{

// Returns what print prints. Before each piece of it is taken, another thread gets the piece and works. Print waits for
// that work: it must hold no lock that the work needs.
inline std::string PrintedWhile(const std::function<void()> &print,
                                const std::function<void(const std::string &)> &work)
{
    std::pair<decltype(work), std::string> cookie(work, "");
    const auto take = [](void *pCookie, const char *text, std::size_t size) {
        auto &[act, all] = *static_cast<decltype(cookie) *>(pCookie);
        all.append(text, size);
        std::thread(act, std::string(text, size)).join();
        return static_cast<ssize_t>(size);
    };
    std::FILE *file = fopencookie(&cookie, "w", {nullptr, take, nullptr, nullptr});
    std::setvbuf(file, nullptr, _IONBF, 0);
    std::FILE *const before = std::exchange(stdout, file);
    print();
    stdout = before;
    std::fclose(file);
    return cookie.second;
}

} // namespace bench
