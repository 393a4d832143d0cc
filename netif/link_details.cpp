#include "netif/link_details.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <vector>

#include "common/FileIO.h"
#include "common/NumberParse.h"
#include "common/UniqueHandle.h"
#include "trace/CDebug.h"

namespace libnetif {

namespace {

constexpr size_t kMaxSysfsText = 64;
// The kernel's bound on link_mode_masks_nwords (a signed byte).
constexpr size_t kMaxMaskWords = 127;

struct speed_duplex {
    std::optional<uint32_t> speed;
    std::optional<link_duplex> duplex;
};

void take(uint32_t speed, uint8_t duplex, speed_duplex& out)
{
    // SPEED_UNKNOWN (-1) and 0 both mean the driver does not know.
    if (speed != 0 && speed != static_cast<uint32_t>(SPEED_UNKNOWN))
        out.speed = speed;
    if (duplex == DUPLEX_FULL)
        out.duplex = link_duplex::full;
    else if (duplex == DUPLEX_HALF)
        out.duplex = link_duplex::half;
}

bool ethtool_call(int fd, const std::string& name, void* data)
{
    ifreq request = {};
    memcpy(request.ifr_name, name.c_str(), name.size() + 1);
    request.ifr_data = static_cast<char*>(data);
    return ioctl(fd, SIOCETHTOOL, &request) == 0;
}

// ETHTOOL_GLINKSETTINGS answers the first call with the number of mask
// words it needs (negated); the second call with that number gets the
// figures.  Kernels before 4.6 lack it: ETHTOOL_GSET then.
bool ask_ethtool(const std::string& name, speed_duplex& out)
{
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd)
        return false;
    std::vector<uint32_t> buffer((sizeof(ethtool_link_settings) + 3 * kMaxMaskWords * 4) / 4 + 1, 0);
    ethtool_link_settings settings = {};
    settings.cmd = ETHTOOL_GLINKSETTINGS;
    memcpy(buffer.data(), &settings, sizeof settings);
    if (ethtool_call(fd.Get(), name, buffer.data())) {
        memcpy(&settings, buffer.data(), sizeof settings);
        if (settings.link_mode_masks_nwords < 0) {
            settings.cmd = ETHTOOL_GLINKSETTINGS;
            settings.link_mode_masks_nwords = static_cast<int8_t>(-settings.link_mode_masks_nwords);
            memcpy(buffer.data(), &settings, sizeof settings);
            if (ethtool_call(fd.Get(), name, buffer.data())) {
                memcpy(&settings, buffer.data(), sizeof settings);
                take(settings.speed, settings.duplex, out);
                return true;
            }
        }
    }
    ethtool_cmd legacy = {};
    legacy.cmd = ETHTOOL_GSET;
    if (!ethtool_call(fd.Get(), name, &legacy))
        return false;
    take(ethtool_cmd_speed(&legacy), legacy.duplex, out);
    return true;
}

std::string read_text(const std::string& path)
{
    std::string text;
    if (tarvd::ReadFileBounded(path.c_str(), kMaxSysfsText, text) != 0)
        return {};
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

// /sys/class/net/NAME/speed and duplex; reading speed fails (EINVAL) while
// the link has no carrier.
void ask_sysfs(const std::string& dir, speed_duplex& out)
{
    std::string speed = read_text(dir + "/speed");
    const char* p = speed.c_str();
    uint64_t value = 0;
    if (tarvd::ParseDigits(p, speed.c_str() + speed.size(), value) && *p == '\0' && value > 0 &&
        value < UINT32_MAX)
        out.speed = static_cast<uint32_t>(value);
    std::string duplex = read_text(dir + "/duplex");
    if (duplex == "full")
        out.duplex = link_duplex::full;
    else if (duplex == "half")
        out.duplex = link_duplex::half;
}

// The driver's name (the last part of the device's driver link) and, when
// the device is a PCI function, its address (the last part of the device's
// real path).
void ask_device(const std::string& dir, interface_record& r)
{
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::path driver = fs::read_symlink(dir + "/device/driver", ec);
    if (!ec)
        r.driver = driver.filename().string();
    fs::path device = fs::canonical(dir + "/device", ec);
    CPciAddress pci;
    if (!ec && pci.FromString(device.filename().string()))
        r.pci_address = pci;
}

} // namespace

void read_link_details(interface_record& r, const std::string& sysfs_root, bool use_ethtool)
{
    r.speed_mbps.reset();
    r.duplex.reset();
    r.driver.clear();
    r.pci_address.reset();
    // The kernel forbids these names; one that came from elsewhere must not
    // lead the look-up out of the interface's own folder.
    if (r.name.empty() || r.name.size() >= IFNAMSIZ || r.name == "." || r.name == ".." ||
        r.name.find('/') != std::string::npos)
        return;
    const std::string dir = sysfs_root + "/" + kClassNet + "/" + r.name;
    speed_duplex sd;
    if (!use_ethtool || !ask_ethtool(r.name, sd))
        ask_sysfs(dir, sd);
    r.speed_mbps = sd.speed;
    r.duplex = sd.duplex;
    ask_device(dir, r);
    DBG_PRINT(6, "\nlibnetif::read_link_details : %s speed=%u driver=%s\n", r.name.c_str(),
              r.speed_mbps.value_or(0), r.driver.c_str());
}

} // namespace libnetif
