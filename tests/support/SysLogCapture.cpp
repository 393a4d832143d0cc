#include "support/SysLogCapture.h"

#include <mutex>
#include <utility>

#include "trace/SysLogTraces.h"

namespace {

std::mutex g_Mutex;
std::vector<std::pair<int, std::string>> g_Lines;

void Collect(int priority, const char* text)
{
    std::lock_guard<std::mutex> lock(g_Mutex);
    g_Lines.emplace_back(priority, text);
}

[[maybe_unused]] const bool g_Installed = (SysLogTraces::SetSink(Collect), true);

} // namespace

void testsupport::RestoreSysLogCapture() { SysLogTraces::SetSink(Collect); }

std::vector<std::pair<int, std::string>> testsupport::TakeSysLogLines()
{
    std::lock_guard<std::mutex> lock(g_Mutex);
    return std::exchange(g_Lines, {});
}
