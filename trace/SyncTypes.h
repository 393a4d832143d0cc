// Results and constants shared by the synchronisation primitives.
#pragma once

/// A wait time of "all bits set" waits without limit.
constexpr unsigned int TR_INFINITE = 0xFFFFFFFFu;

/// Results of the waits of CEvent and CSemaphore.
constexpr int TR_WAIT_OBJECT_0 = 0;   ///< signalled
constexpr int TR_WAIT_TIMEOUT = 102;  ///< the time ran out
constexpr int TR_WAIT_FAILED = -1;    ///< error, or the object is closed
