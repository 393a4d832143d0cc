// A mount table longer than any real machine's is read line by line and
// cut at the volume limit: bounded memory and time, the first volumes kept.
#include <gtest/gtest.h>

#include "hwinfo/CSystemDevices.h"
#include "support/Firmware.h"

TEST(VolumeLimit, HugeMountTableKeepsTheFirstVolumesOnly)
{
    hwtest::FakeRoot root;
    std::string table = "proc /proc proc rw 0 0\n";
    for (size_t i = 0; i < CSystemVolume::kMaxVolumes + 5; ++i)
        table += "/dev/sd" + std::to_string(i) + " /srv/v" + std::to_string(i) + " ext4 rw 0 0\n";
    ASSERT_TRUE(root.Write(hwinfo::kMountTable, table));
    std::vector<CSystemVolume> volumes;
    ASSERT_TRUE(CSystemVolume::ScanSystemVolumes(volumes));
    ASSERT_EQ(volumes.size(), CSystemVolume::kMaxVolumes);
    EXPECT_EQ(volumes.front().mountPoint, "/srv/v0");
    EXPECT_EQ(volumes.back().mountPoint, "/srv/v" + std::to_string(CSystemVolume::kMaxVolumes - 1));
}
