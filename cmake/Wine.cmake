# Windows binaries built here run under Wine, in a prefix of their own inside the
# build tree. The prefix is created once, by the test fixture below, before any
# test needs it.
find_program(KESTREL_WINE wine REQUIRED)
find_program(KESTREL_WINEBOOT wineboot REQUIRED)
set(KESTREL_WINEPREFIX ${CMAKE_BINARY_DIR}/wineprefix)
set(CMAKE_CROSSCOMPILING_EMULATOR env WINEDEBUG=-all WINEDLLOVERRIDES=winedbg.exe=d WINEPREFIX=${KESTREL_WINEPREFIX} ${KESTREL_WINE})
