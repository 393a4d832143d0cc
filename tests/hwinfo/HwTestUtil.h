// The firmware and fake-machine builders now live in tests/support.
#pragma once
#include "support/Firmware.h"
