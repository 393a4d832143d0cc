// The test programs' own trace object (every program defines one).
#include "trace/CDebug.h"

CDebug Debug;
