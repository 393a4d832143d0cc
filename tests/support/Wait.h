// Polling waits.  A wait never decides a test by how long something took:
// the time-out only stops a test that would otherwise hang.
#pragma once

#include <chrono>
#include <string>
#include <thread>

namespace testsupport {

/// Generous enough for a loaded machine or a sanitizer build.
inline constexpr std::chrono::milliseconds kLongWait = std::chrono::seconds(60);

/// Polls `done` every 20 ms until it holds or `timeout` passes; its last answer.
template <typename F>
bool WaitFor(F&& done, std::chrono::milliseconds timeout = kLongWait)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < end) {
        if (done())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return done();
}

inline bool Contains(const std::string& text, const std::string& what) { return text.find(what) != std::string::npos; }

inline size_t CountOf(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t pos = 0; (pos = text.find(what, pos)) != std::string::npos; ++pos)
        ++n;
    return n;
}

} // namespace testsupport
