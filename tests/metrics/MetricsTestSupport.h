// Helpers of the metrics module's tests and benchmark: a raw HTTP exchange
// over loopback and a synthetic machine of any size.
#pragma once

#include <arpa/inet.h>
#include <cstdio>
#include <string>
#include <sys/socket.h>

#include "common/UniqueHandle.h"
#include "modules/metrics/Exposition.h"

namespace metricstest {

/// A socket connected to 127.0.0.1:`port`; a read gives up after 30 s (a hang fails, not hangs).
inline UniqueFd Connect(uint16_t port)
{
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in a{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const timeval limit{30, 0};
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return connect(fd.Get(), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? std::move(fd) : UniqueFd();
}

inline std::string ReadAll(int fd)
{
    std::string out;
    char buffer[65536];
    for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;)
        out.append(buffer, static_cast<size_t>(n));
    return out;
}

/// The whole answer to `request` (sent, then half-closed when `shut`); "" when none.
inline std::string Exchange(uint16_t port, const std::string& request, bool shut = false)
{
    UniqueFd fd = Connect(port);
    // The server may close before an oversized request is all sent.
    for (ssize_t sent = 0, n = 0; fd && sent < static_cast<ssize_t>(request.size()); sent += n)
        if ((n = send(fd.Get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL)) <= 0)
            break;
    if (shut)
        shutdown(fd.Get(), SHUT_WR);
    return fd ? ReadAll(fd.Get()) : "";
}

inline std::string Get(uint16_t port, const std::string& target)
{
    return Exchange(port, "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
}

/// A machine of that many interfaces, drives (and volumes) and adapters, with texts to escape.
inline metrics::Snapshot Synthetic(int interfaces, int drives, int adapters)
{
    metrics::Snapshot s;
    for (int i = -1; i < 8; ++i)
        s.cpus.push_back({i < 0 ? "" : std::to_string(i), (i + 1) / 8.0});
    s.memory = metrics::Memory{1ull << 36, 1ull << 35, 1ull << 33, 1ull << 35, 1ull << 32, 1ull << 31};
    for (uint64_t i = 0; i < static_cast<uint64_t>(interfaces); ++i)
        s.interfaces.push_back({"eth" + std::to_string(i) + "\"\\", i << 40, i << 30, i << 20, i << 10, i, 0});
    for (int i = 0; i < drives; ++i) {
        const std::string n = std::to_string(i);
        s.drives.push_back({"sd" + n, "Vendor\n" + n, "Model " + n, "0000:00:1f." + n, (1ull << 40) + i});
        s.volumes.push_back({"/data/" + n, "/dev/sd" + n + "1", "ext4", 1ull << 39, 1ull << 38});
    }
    for (int i = 0; i < adapters; ++i) {
        char address[32];
        snprintf(address, sizeof address, "0000:%02x:00.%d", i / 8, i % 8);
        s.adapters.push_back({address, i % 3 ? std::to_string(i) : "", "8086", "1533", "Network controller",
                              "Ethernet \"I210\" \xC3\xA9 \xFF"});
    }
    s.memoryDevices.push_back({"DIMM A1", "P0 CHANNEL A", 16ull << 30});
    s.identity = metrics::Identity{"Maker", "Server 1", "SN\\1", "0123", "Firmware Inc.", "2.1", "01/02/2024"};
    s.changeRecords = 7;
    s.health = {5u, 1u, 12, 1, 3};
    s.scrapeSeconds = 0.0125;
    return s;
}

} // namespace metricstest
