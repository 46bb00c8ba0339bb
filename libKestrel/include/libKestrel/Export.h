#pragma once

// One export macro for libKestrel: dllexport while building the library,
// dllimport for hosts, default visibility on ELF (everything else is hidden).
#if defined(_WIN32)
#  if defined(LIBKESTREL_BUILDING)
#    define LIBKESTREL_API __declspec(dllexport)
#  else
#    define LIBKESTREL_API __declspec(dllimport)
#  endif
#else
#  define LIBKESTREL_API __attribute__((visibility("default")))
#endif
