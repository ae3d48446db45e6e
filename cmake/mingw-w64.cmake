# Cross build for 64-bit Windows with mingw-w64 (Debian: g++-mingw-w64-x86-64-posix), the check
# that the engine builds and runs on Windows (tools/check-windows.sh runs the result under wine):
#   cmake -S . -B build/win -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake -DTORVIK_BUILD_MODULE=OFF -DTORVIK_BUILD_TESTS=ON
# The "posix" flavour of the compiler: std::thread and std::mutex need its thread model.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(TORVIK_MINGW_PREFIX "x86_64-w64-mingw32" CACHE STRING "Target triplet of the mingw-w64 tools")
set(CMAKE_C_COMPILER "${TORVIK_MINGW_PREFIX}-gcc-posix")
set(CMAKE_CXX_COMPILER "${TORVIK_MINGW_PREFIX}-g++-posix")
set(CMAKE_RC_COMPILER "${TORVIK_MINGW_PREFIX}-windres")
set(CMAKE_FIND_ROOT_PATH "/usr/${TORVIK_MINGW_PREFIX}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The compiler's own runtime (libstdc++, libgcc, winpthread) goes into each binary, so that the
# results run without the compiler's DLLs beside them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
# Lets CTest (and GoogleTest's discovery) run the test binaries, where wine is at hand.
find_program(TORVIK_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_DEFAULT_PATH)
find_program(TORVIK_WINE NAMES wine64 wine)
if(TORVIK_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${TORVIK_WINE}")
endif()
