// The hardware inventory as the inventory module keeps it in the registry:
// one key per adapter, drive and volume with typed values, and the list of
// hardware changes found by comparing a new scan with the stored inventory.
//
// Layout below HKEY_LOCAL_MACHINE (see README, "Bundled modules"):
//
//   SOFTWARE\Tarvis\Inventory                  summary values
//   SOFTWARE\Tarvis\Inventory\Adapters\<ssss:bb:dd.f>
//   SOFTWARE\Tarvis\Inventory\Drives\<kernel name>
//   SOFTWARE\Tarvis\Inventory\Volumes\<escaped mount point>
//   SOFTWARE\Tarvis\Inventory\Identity\<BIOS|System|Baseboard|Chassis|
//                                        Processor NN|MemoryArray NN|Memory NN>
//   SOFTWARE\Tarvis\Inventory\NetworkInterfaces\<escaped interface name>
//   SOFTWARE\Tarvis\Inventory\Changes\<10-digit sequence number>
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class CRegistry;
class CSystemDeviceScan;
class CSystemAdapter;
class CSystemDrive;
class CSystemVolume;
struct SmbiosIdentity;

namespace inventory {

/// Keys, relative to HKEY_LOCAL_MACHINE.
inline constexpr const char* kInventoryKey = "SOFTWARE\\Tarvis\\Inventory";
inline constexpr const char* kAdaptersKey = "Adapters";
inline constexpr const char* kDrivesKey = "Drives";
inline constexpr const char* kVolumesKey = "Volumes";
inline constexpr const char* kChangesKey = "Changes";
/// The machine identity from the firmware's SMBIOS table.
inline constexpr const char* kIdentityKey = "Identity";


/// The Slot value of an adapter without a known physical slot.
inline constexpr uint32_t kNoSlot = 0xFFFFFFFFu;
/// Key names longer than this (after escaping) are not published: a line of
/// the registry file holds at most 1023 characters.
inline constexpr size_t kMaxKeyName = 240;
/// Text values are cut to this many bytes for the same reason.
inline constexpr size_t kMaxText = 700;

/// One value: a text (registry type 1) or a 32-bit number (type 4).
struct Value {
    uint32_t type = 1;
    std::string text;
    uint32_t number = 0;

    static Value Text(const std::string& t);
    static Value Number(uint32_t n);
    bool operator==(const Value& other) const;
};

using Properties = std::map<std::string, Value>;
/// Key name → the key's values.
using Category = std::map<std::string, Properties>;

struct Inventory {
    Category adapters;
    Category drives;
    Category volumes;
    Category identity;  ///< empty when the firmware table gave no BIOS or system record
};

enum class ChangeKind {
    AdapterAdded,
    AdapterRemoved,
    AdapterMoved,   ///< the same card (ids) in another slot
    DriveAdded,
    DriveRemoved,
    DriveMoved,     ///< the same drive behind another host adapter
    VolumeAdded,
    VolumeRemoved,
    VolumeChanged,  ///< another device mounted on the same mount point
    IdentityChanged,  ///< a value of the machine identity (a BIOS update, a new serial number)
    MemoryAdded,      ///< a memory device slot that was empty holds a module
    MemoryRemoved,    ///< a memory device slot that held a module is empty
    // Network interfaces, as the kernel tells of them (object: the interface's name).
    InterfaceAdded,
    InterfaceRemoved,
    LinkUp,           ///< up with carrier (a cable plugged in, the interface brought up)
    LinkDown,
    SpeedChanged,     ///< detail "1000 -> 10000 Mbit/s" ("unknown" when not known)
    AddressAdded,     ///< detail: the address with its prefix
    AddressRemoved,
    MacChanged,       ///< detail "old -> new"
};

/// "AdapterAdded", "AdapterRemoved", ... as stored in the Kind value.
const char* ChangeKindName(ChangeKind kind);

struct Change {
    ChangeKind kind;
    std::string object;  ///< key name of the adapter or drive, mount point of a volume
    std::string detail;  ///< readable description
};

/// A key name for `text`: '%', '/', '\\', '[', ']', '=' and control or
/// non-ASCII bytes become "%XX" (upper-case hex), so that the name is one
/// path component and survives the registry file.  "/" gives "%2F".
std::string EscapeKeyName(const std::string& text);
/// The reverse of EscapeKeyName; malformed escapes are kept as they stand.
std::string UnescapeKeyName(const std::string& name);
/// `text` with line feeds, carriage returns and other control bytes
/// replaced by '?', cut to kMaxText bytes.
std::string SanitizeText(const std::string& text);

Properties AdapterProperties(const CSystemAdapter& adapter);
Properties DriveProperties(const CSystemDrive& drive, const std::string& hostAdapter);
Properties VolumeProperties(const CSystemVolume& volume);

/// The scan's current adapters with their drives (drives are reached
/// through their host adapter, so a drive not below a PCI function is not
/// listed) and volumes.  Takes the scan's lock once per query.
Inventory CollectInventory(CSystemDeviceScan& scan);
/// The scan's current volumes only.
Category CollectVolumes(CSystemDeviceScan& scan);
/// The identity's registry form; empty when `id` has neither a BIOS nor a
/// system record (a firmware table that could not be read is no identity).
Category IdentityCategory(const SmbiosIdentity& id);
/// The identity of the machine under hwinfo's root (empty when no SMBIOS
/// table could be read).
Category CollectIdentity();

/// Changes from `stored` to `now`: changes at keys present in both, then
/// removals, then additions and moves, each group in key order.  An adapter that disappears at one address while
/// one with the same ids (vendor, device, subsystem) appears at another and
/// the slots differ is one AdapterMoved; at the same address a different
/// Slot value is a move too.
std::vector<Change> CompareAdapters(const Category& stored, const Category& now);
std::vector<Change> CompareDrives(const Category& stored, const Category& now);
std::vector<Change> CompareVolumes(const Category& stored, const Category& now);
/// A memory device whose Installed value flips is MemoryAdded or
/// MemoryRemoved (so is a memory key that appears or goes with a module);
/// any other difference of a key, or a key that appears or goes, is one
/// IdentityChanged naming the values that differ.
std::vector<Change> CompareIdentity(const Category& stored, const Category& now);

// Registry access.  All of these work through the caller's handle `reg`
// (its current key changes), so that one publication is saved once, when
// the caller's last handle goes.

/// Reads the subkeys of `Inventory\<name>` with their text and number
/// values into `out`.  False (out empty) when the key does not exist.
bool ReadCategory(CRegistry& reg, const char* name, Category& out);
/// Makes `Inventory\<name>` hold exactly the keys of `items` with exactly
/// their values: other keys and values are deleted, values are written only
/// where they differ (so an unchanged inventory leaves the tree clean).
/// False when the key cannot be created.
bool WriteCategory(CRegistry& reg, const char* name, const Category& items);

/// Appends `changes` under `Inventory\Changes` with the time `isoTime`,
/// numbering them on from the Inventory value LastChange, and deletes the
/// oldest entries beyond `keep` (at least 1).  Returns the last sequence
/// number used (the stored one when `changes` is empty).
uint32_t RecordChanges(CRegistry& reg, const std::vector<Change>& changes, const std::string& isoTime, unsigned keep);

/// A number value of the Inventory key; false when missing.
bool ReadSummaryNumber(CRegistry& reg, const char* name, uint32_t& out);
/// Writes values of the Inventory key (creating it) where they differ.
bool WriteSummary(CRegistry& reg, const Properties& values);

} // namespace inventory
