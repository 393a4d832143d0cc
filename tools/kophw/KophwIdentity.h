// kophw: the machine identity from SMBIOS (BIOS, system, baseboard,
// chassis, processors, memory) as text and as the "identity" JSON member.
#pragma once

#include "hwinfo/SmbiosIdentity.h"
#include "tools/common/JsonWriter.h"

namespace kophw {

/// Writes the "identity" member into `w` and, unless `json`, the text form
/// on standard output.  Absent fields are null in JSON and "Not Specified"
/// in text.
void ShowIdentity(CJsonWriter& w, bool json, const SmbiosIdentity& id);

} // namespace kophw
