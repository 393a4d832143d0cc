#include "perfmon/PerfMonSeams.h"

#include <cstring>
#include <ctime>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "common/UniqueHandle.h"

namespace perfmon {

namespace {

// The kernel reports these when the speed is not known.
constexpr uint32_t kSpeedUnknown32 = 0xFFFFFFFFu;
constexpr uint32_t kSpeedUnknown16 = 0xFFFFu;

bool KnownSpeed(uint32_t speed)
{
    return speed != 0 && speed != kSpeedUnknown32 && speed != kSpeedUnknown16;
}

bool FillRequest(struct ifreq& ifr, const std::string& name)
{
    if (name.empty() || name.size() >= IFNAMSIZ)
        return false;
    memset(&ifr, 0, sizeof ifr);
    memcpy(ifr.ifr_name, name.c_str(), name.size());
    return true;
}

// ETHTOOL_GLINKSETTINGS: the first call with no mask words makes the kernel
// tell how many it wants (as a negative count); the second call fetches.
bool QueryLinkSettings(int fd, const std::string& name, uint32_t& speed)
{
    constexpr size_t kMaxMaskWords = 127;  // the field is a signed 8-bit count
    alignas(8) unsigned char buffer[sizeof(struct ethtool_link_settings) + 3 * kMaxMaskWords * sizeof(uint32_t)];
    struct ethtool_link_settings header;
    memset(buffer, 0, sizeof buffer);
    memset(&header, 0, sizeof header);
    header.cmd = ETHTOOL_GLINKSETTINGS;
    memcpy(buffer, &header, sizeof header);

    struct ifreq ifr;
    if (!FillRequest(ifr, name))
        return false;
    ifr.ifr_data = reinterpret_cast<char*>(buffer);
    if (ioctl(fd, SIOCETHTOOL, &ifr) < 0)
        return false;
    memcpy(&header, buffer, sizeof header);
    if (header.link_mode_masks_nwords >= 0 || header.cmd != ETHTOOL_GLINKSETTINGS)
        return false;
    int8_t words = static_cast<int8_t>(-header.link_mode_masks_nwords);
    if (words <= 0 || static_cast<size_t>(words) > kMaxMaskWords)
        return false;

    memset(buffer, 0, sizeof buffer);
    memset(&header, 0, sizeof header);
    header.cmd = ETHTOOL_GLINKSETTINGS;
    header.link_mode_masks_nwords = words;
    memcpy(buffer, &header, sizeof header);
    if (ioctl(fd, SIOCETHTOOL, &ifr) < 0)
        return false;
    memcpy(&header, buffer, sizeof header);
    if (header.link_mode_masks_nwords <= 0 || header.cmd != ETHTOOL_GLINKSETTINGS)
        return false;
    speed = header.speed;
    return true;
}

bool QueryLegacySettings(int fd, const std::string& name, uint32_t& speed)
{
    struct ethtool_cmd cmd;
    memset(&cmd, 0, sizeof cmd);
    cmd.cmd = ETHTOOL_GSET;
    struct ifreq ifr;
    if (!FillRequest(ifr, name))
        return false;
    ifr.ifr_data = reinterpret_cast<char*>(&cmd);
    if (ioctl(fd, SIOCETHTOOL, &ifr) < 0)
        return false;
    speed = ethtool_cmd_speed(&cmd);
    return true;
}

} // namespace

CEthtoolLinkSpeed::CEthtoolLinkSpeed() : m_Socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}

bool CEthtoolLinkSpeed::GetLinkSpeedMbps(const std::string& name, uint32_t& mbps)
{
    // Without the kept socket (none could be made then) one is made for the
    // request.
    UniqueFd own;
    int fd = m_Socket.Get();
    if (fd < 0) {
        own.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (!own)
            return false;
        fd = own.Get();
    }
    uint32_t speed = 0;
    if (!QueryLinkSettings(fd, name, speed) && !QueryLegacySettings(fd, name, speed))
        return false;
    if (!KnownSpeed(speed))
        return false;
    mbps = speed;
    return true;
}

uint64_t CRealTimeClock::NowMs()
{
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

} // namespace perfmon
