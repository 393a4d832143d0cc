// Placeholder implementation: tracing stays off.  Replaced by the real
// trace facility.
#include "trace/CDebug.h"

struct CDebug::Impl {};

CDebug::CDebug() : m_Impl(nullptr) {}
CDebug::CDebug(const char* programName) : m_Impl(nullptr) { Init(programName); }
CDebug::~CDebug() {}
bool CDebug::Init(const char*) { return true; }
void CDebug::Print(unsigned int, const char*, ...) {}
void CDebug::PrintV(unsigned int, const char*, va_list) {}
void CDebug::PrintAlways(const char*, ...) {}
void CDebug::PrintAlways(unsigned int, const char*, ...) {}
void CDebug::PrintAlwaysV(const char*, va_list, const char*) {}
void CDebug::ClientPrintV(const char*, va_list, const char*) {}
void CDebug::SetMainParams(int, char**) {}
void CDebug::SetApplInitDone() {}
bool CDebug::ForceMaxDebug(bool) { return true; }
void CDebug::SetConfigDirectory(const char*) {}
