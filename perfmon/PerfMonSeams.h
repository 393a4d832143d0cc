// What the performance monitor asks of the operating system beyond the proc
// files: the link speed of a network interface and the wall-clock time.
// Both sit behind small interfaces so that a test (or a replay of captured
// data) can answer them.
#pragma once

#include <cstdint>
#include <string>

#include "common/UniqueHandle.h"

namespace perfmon {

/// Answers the link speed of a network interface.
class IPerfLinkSpeed {
public:
    virtual ~IPerfLinkSpeed() = default;
    /// The speed in Mbit/s of interface `name`; false when unknown (no
    /// link, not an Ethernet device, the request failed).  `mbps` is left
    /// unchanged on failure.
    virtual bool GetLinkSpeedMbps(const std::string& name, uint32_t& mbps) = 0;
};

/// The default: the ethtool request SIOCETHTOOL on a datagram socket, first
/// ETHTOOL_GLINKSETTINGS, then the older ETHTOOL_GSET.
class CEthtoolLinkSpeed final : public IPerfLinkSpeed {
public:
    /// Opens the socket the requests go through once, for every snapshot
    /// (a request on a shared socket carries all its state in the call).
    CEthtoolLinkSpeed();
    bool GetLinkSpeedMbps(const std::string& name, uint32_t& mbps) override;

private:
    UniqueFd m_Socket;
};

/// Answers the current time in milliseconds.
class IPerfClock {
public:
    virtual ~IPerfClock() = default;
    virtual uint64_t NowMs() = 0;
};

/// The default: CLOCK_REALTIME as seconds × 1000 + milliseconds.
class CRealTimeClock final : public IPerfClock {
public:
    uint64_t NowMs() override;
};

} // namespace perfmon
