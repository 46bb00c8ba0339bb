#pragma once

// One export macro for the support library: dllexport while building tova.dll,
// dllimport for its users, default visibility on ELF (everything else is hidden).
#if defined(_WIN32)
#  if defined(TOVA_BUILDING)
#    define TOVA_API __declspec(dllexport)
#  else
#    define TOVA_API __declspec(dllimport)
#  endif
#else
#  define TOVA_API __attribute__((visibility("default")))
#endif
