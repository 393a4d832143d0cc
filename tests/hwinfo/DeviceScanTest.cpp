// Drives, volumes and the device scan orchestrator (lock, watcher, terminate).
#include <gtest/gtest.h>

#include <future>

#include "hwinfo/CSystemDeviceScan.h"
#include "support/Firmware.h"
#include "support/Wait.h"

using namespace hwtest;
using testsupport::WaitFor;

namespace {

constexpr int kNoWatcher = CSystemDeviceScan::SCAN_ALL & ~CSystemDeviceScan::SCAN_WATCHER;

/// Two storage adapters, three disks (two behind the first adapter), a loop
/// device, a device-mapper disk without device link, and a mount table.
class DeviceScan : public ::testing::Test {
protected:
    DeviceScan()
    {
        root.Write("/proc/bus/pci/00/1f.2", PciConfig(0x8086, 0x1d02, 1, 6));
        root.Write("/proc/bus/pci/3b/00.0", PciConfig(0x8086, 0x0097, 1, 8));
        const std::string r = root.Path(""), ata = "/sys/devices/pci0000:00/0000:00:1f.2/";
        WriteDisk(r, "sda", ata + "ata1/host0/target0:0:0/0:0:0:0", "Disk A", "ATA", 2048);
        WriteDisk(r, "sdb", ata + "ata2/host1/target1:0:0/1:0:0:0", "Disk B", "ATA", 4096);
        WriteDisk(r, "nvme0n1", "/sys/devices/pci0000:3a/0000:3a:00.0/0000:3b:00.0/nvme/nvme0", "NVMe C", "ATA", 100);
        WriteDisk(r, "loop0", "/sys/devices/virtual/loop0", "loop", "ATA", 8);
        root.Write("/sys/block/dm-0/size", std::string("16\n"));
        testsupport::MakeDirs(root.Path("/mnt/data dir"));
        testsupport::MakeDirs(root.Path("/boot"));
        root.Write(hwinfo::kMountTable, std::string("/dev/sda1 / ext4 rw 0 0\nproc /proc proc rw 0 0\n"
                                                    "tmpfs /run tmpfs rw 0 0\n/dev/sda2 /boot xfs rw 0 0\n"
                                                    "systemd-1 /home autofs rw 0 0\n"
                                                    "/dev/sdb1 /mnt/data\\040dir ext4 rw 0 0\nbroken-line\n"));
    }
    FakeRoot root;
    CSystemDeviceScan scan;
};
using DriveAndVolumeScan = DeviceScan;

} // namespace

TEST_F(DriveAndVolumeScan, FakeMachineAndAHugeMountTable)
{
    CSystemDriveList drives;
    ASSERT_TRUE(CSystemDrive::ScanSystemDrives(drives));
    ASSERT_EQ(3u, drives.size());  // loop0 and dm-0 skipped
    EXPECT_EQ(CPciAddress(0, 0x3B, 0, 0), drives[0].GetPciAddress());  // the last PCI component
    EXPECT_EQ("sda Disk A ATA 1048576 0000:00:1f.2", drives[1].name + " " + drives[1].model + " " + drives[1].vendor +
                                                      " " + std::to_string(drives[1].sizeBytes) + " " +
                                                      drives[1].GetPciAddress().ToString());
    CPciAddress b(0, 1, 2, 3);
    EXPECT_FALSE(CSystemDrive::PciAddressFromPath("/x/0000:00:03.8/0000:0g:00.0/000:00:03.0/dm-0", b));
    EXPECT_EQ(CPciAddress(0, 1, 2, 3), b);

    CSystemVolumeList volumes;
    ASSERT_TRUE(CSystemVolume::ScanSystemVolumes(volumes));
    ASSERT_EQ(3u, volumes.size());
    EXPECT_EQ("/dev/sda1 xfs /mnt/data dir", volumes[0].device + " " + volumes[1].fsType + " " + volumes[2].mountPoint);
    EXPECT_GT(volumes[0].totalBytes, 0u);  // statvfs on the temporary root
    // A mount table longer than any real machine's is read line by line and
    // cut at the volume limit: bounded memory and time, the first volumes kept.
    std::string table = "proc /proc proc rw 0 0\n";
    for (size_t i = 0; i < CSystemVolume::kMaxVolumes + 5; ++i)
        table += "/dev/sd" + std::to_string(i) + " /srv/v" + std::to_string(i) + " ext4 rw 0 0\n";
    ASSERT_TRUE(root.Write(hwinfo::kMountTable, table) && CSystemVolume::ScanSystemVolumes(volumes));
    ASSERT_EQ(volumes.size(), CSystemVolume::kMaxVolumes);
    EXPECT_EQ(volumes.front().mountPoint, "/srv/v0");
    EXPECT_EQ(volumes.back().mountPoint, "/srv/v" + std::to_string(CSystemVolume::kMaxVolumes - 1));
    FakeRoot empty;
    EXPECT_FALSE(CSystemVolume::ScanSystemVolumes(volumes) || CSystemDrive::ScanSystemDrives(drives));
    EXPECT_EQ(CSystemVolume::kMaxVolumes, volumes.size());  // unchanged on failure
}

TEST_F(DeviceScan, FullScanAndQueries)
{
    std::vector<int> seen;
    scan.SetSubScanHook([&](int kind) { seen.push_back(kind); });
    ASSERT_EQ(0, scan.ScanHardware(0, true, 1000));
    EXPECT_FALSE(scan.IsUpdateThreadAlive());  // no watcher flag: never started
    ASSERT_EQ(0, scan.ScanHardware(CSystemDeviceScan::SCAN_VOLUMES, false, 1000));
    EXPECT_EQ(0, scan.GetAdapterCount());
    ASSERT_EQ(0, scan.ScanDevices(kNoWatcher, false, 1000));
    EXPECT_EQ((std::vector<int>{8, 1, 2, 8}), seen);  // flags select the sub-scans, in a fixed order
    EXPECT_EQ(std::pair(2, 3), std::pair(scan.GetAdapterCount(), scan.GetVolumeCount()));
    CSystemAdapter a, hba, none, host;
    ASSERT_EQ(1, scan.GetAdapter(a, 1));
    EXPECT_EQ("8086:0097", a.deviceIdText);
    EXPECT_THROW(scan.GetAdapter(a, 2), std::out_of_range);
    EXPECT_EQ(2, scan.GetAdapterCount());  // the lock was released by the throw
    ASSERT_EQ(1, scan.FindAdapter(hba, "8086:1d02"));
    EXPECT_EQ(1, scan.FindAdapter(none, "8086:ffff") + scan.FindAdapter(none, CPciAddress(0, 0x3B, 0, 0)) +
                     scan.FindAdapter(none, CPciAddress(1, 0x3B, 0, 0)));
    CSystemDriveList drives;
    ASSERT_TRUE(scan.GetHostDrives(drives, hba) && drives.size() == 2);
    EXPECT_EQ("sdb", drives[1].name);
    ASSERT_EQ(1, scan.GetHostAdapter(host, drives[1]));
    EXPECT_EQ("8086:1d02", host.deviceIdText);
    CSystemDriveList none2;
    EXPECT_FALSE(scan.GetHostDrives(none2, *std::make_unique<CSystemAdapter>()));  // an adapter no scan made
    CSystemVolume v;
    ASSERT_TRUE(scan.GetVolume(v, 1) == 1 && v.mountPoint == "/boot");
    EXPECT_EQ(0, scan.GetVolume(v, 3));
    CSystemDeviceScan copy(scan);  // copies carry the lists
    EXPECT_EQ(std::pair(2, 3), std::pair(copy.GetAdapterCount(), copy.GetVolumeCount()));
}

TEST_F(DeviceScan, SecondScanTimesOutWhileTheFirstHoldsTheLock)
{
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    scan.SetSubScanHook([&](int) {
        entered.set_value();
        released.wait();
    });
    auto first = std::async(std::launch::async, [&] { return scan.ScanHardware(CSystemDeviceScan::SCAN_DRIVES, false, 5000); });
    entered.get_future().wait();
    EXPECT_EQ(-1, scan.ScanHardware(CSystemDeviceScan::SCAN_VOLUMES, false, 50));
    release.set_value();
    EXPECT_EQ(0, first.get());
    scan.SetSubScanHook(nullptr);
    EXPECT_EQ(0, scan.ScanHardware(CSystemDeviceScan::SCAN_VOLUMES, false, 1000));  // the lock is free again
}

TEST_F(DeviceScan, TerminateDuringAScanSkipsTheRestAndLaterScans)
{
    ASSERT_EQ(0, scan.ScanHardware(CSystemDeviceScan::SCAN_VOLUMES | CSystemDeviceScan::SCAN_ADAPTERS, false, 1000));
    std::vector<int> seen;
    std::promise<void> entered;
    scan.SetSubScanHook([&](int kind) {
        seen.push_back(kind);
        if (kind == CSystemDeviceScan::SCAN_ADAPTERS) {
            entered.set_value();
            WaitFor([&] { return scan.IsTerminating(); });  // hold the lock until Terminate raised its flag
        }
    });
    root.Write("/proc/self/mounts", std::string("/dev/sda1 / ext4 rw 0 0\n"));
    root.Write("/proc/bus/pci/3c/00.0", PciConfig(0x8086, 0x0098, 1, 7));
    auto scanning = std::async(std::launch::async, [&] { return scan.ScanHardware(kNoWatcher, false, 5000); });
    entered.get_future().wait();
    auto terminating = std::async(std::launch::async, [&] { return scan.Terminate(10000); });
    EXPECT_EQ(std::pair(0, 0), std::pair(scanning.get(), terminating.get()));
    // The running step (the PCI scan) finished; adapters, drives and volumes were skipped.
    EXPECT_EQ(std::vector<int>{CSystemDeviceScan::SCAN_ADAPTERS}, seen);
    EXPECT_EQ(2, scan.GetAdapterCount());
    // Later scans skip everything and start no watcher; queries answer the old lists.
    EXPECT_EQ(0, scan.ScanHardware(CSystemDeviceScan::SCAN_ALL, true, 1000));
    EXPECT_TRUE(seen.size() == 1 && !scan.IsUpdateThreadAlive());
    EXPECT_EQ(3, scan.GetVolumeCount());
}

// The watcher scans on its own and stops when asked; at the default 60-second period only the
// exit event wakes it: Terminate and the destructor end it.
TEST_F(DeviceScan, WatcherRefreshesVolumesAndStopsAndTerminateAndDestructorEndIt)
{
    CSystemDeviceScan fast;
    fast.SetWatcherPeriod(10);
    ASSERT_EQ(0, fast.ScanHardware(CSystemDeviceScan::SCAN_WATCHER, true, 1000));
    EXPECT_TRUE(fast.IsUpdateThreadAlive() && fast.GetAdapterCount() == 0);
    EXPECT_TRUE(WaitFor([&] { return fast.GetVolumeCount() == 3; }));
    root.Write("/proc/self/mounts", std::string("/dev/sda1 / ext4 rw 0 0\n"));
    EXPECT_TRUE(WaitFor([&] { return fast.GetVolumeCount() == 1; }));
    ASSERT_EQ(0, fast.RescanHardware(1000));  // a rescan keeps it running because it ran
    EXPECT_TRUE(fast.IsUpdateThreadAlive());
    EXPECT_TRUE(fast.StopUpdateThread(5000) == 1 && !fast.IsUpdateThreadAlive());
    EXPECT_EQ(1, fast.StopUpdateThread(5000));  // not running: success
    EXPECT_TRUE(fast.RescanHardware(1000) == 0 && !fast.IsUpdateThreadAlive());

    ASSERT_TRUE(scan.ScanHardware(CSystemDeviceScan::SCAN_WATCHER, true, 1000) == 0 && scan.IsUpdateThreadAlive());
    EXPECT_TRUE(scan.Terminate(5000) == 0 && !scan.IsUpdateThreadAlive());
    auto owned = std::make_unique<CSystemDeviceScan>();
    ASSERT_EQ(0, owned->ScanHardware(CSystemDeviceScan::SCAN_WATCHER | CSystemDeviceScan::SCAN_VOLUMES, true, 1000));
    ASSERT_TRUE(owned->IsUpdateThreadAlive());
    owned.reset();  // must not leave a thread running on freed memory (ASan)
}
