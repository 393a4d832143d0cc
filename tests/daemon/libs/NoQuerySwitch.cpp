// A framework library without SW_QueryInterface.
#include <cstdint>

#include "TestRecord.h"

extern "C" __attribute__((visibility("default"))) uint32_t SW_Release()
{
    TestRecord("TEST_SWITCH_RECORD", "release");
    return 0;
}
