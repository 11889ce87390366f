// Public header: part of the installed API.
// Result codes follow the HRESULT convention: 0 is success, negative is
// failure. Callers test the sign. Where the platform headers already define
// the standard names they are used as they are.
#pragma once

#include <cstdint>

#ifndef S_OK
#define S_OK ((int32_t)0)
#endif
#ifndef E_NOTIMPL
#define E_NOTIMPL ((int32_t)0x80004001)
#endif
#ifndef E_POINTER
#define E_POINTER ((int32_t)0x80004003)
#endif
#ifndef E_FAIL
#define E_FAIL ((int32_t)0x80004005)
#endif
#ifndef E_INVALIDARG
#define E_INVALIDARG ((int32_t)0x80070057)
#endif
#ifndef E_OUTOFMEMORY
#define E_OUTOFMEMORY ((int32_t)0x8007000E)
#endif

namespace Korvane {

// The standard name of a result code, for messages shown to people.
inline const char* ResultCodeName(int32_t code) {
  switch (static_cast<uint32_t>(code)) {
    case 0x00000000u: return "S_OK";
    case 0x80004001u: return "E_NOTIMPL";
    case 0x80004003u: return "E_POINTER";
    case 0x80004005u: return "E_FAIL";
    case 0x80070057u: return "E_INVALIDARG";
    case 0x8007000Eu: return "E_OUTOFMEMORY";
    default: return code < 0 ? "unknown failure" : "success";
  }
}

}  // namespace Korvane
