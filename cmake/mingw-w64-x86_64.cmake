# Cross build for 64-bit Windows with the MinGW-w64 toolchain (Debian:
# g++-mingw-w64-x86-64-posix, binutils-mingw-w64-x86-64). The posix thread
# model gives std::thread and std::mutex. The runtime libraries are linked in
# statically, so that the programs and DLLs run from any folder (and under
# Wine) without the toolchain's own DLLs beside them.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(_qn_triple x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${_qn_triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_qn_triple}-g++-posix)
set(CMAKE_RC_COMPILER ${_qn_triple}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${_qn_triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# Programs built here run under Wine (tools/wine-run.sh keeps a prefix of its
# own inside the build folder).
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../tools/wine-run.sh ${CMAKE_BINARY_DIR}/wine)
