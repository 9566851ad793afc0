# Windows by MinGW-w64; the file that includes this one sets CMAKE_SYSTEM_PROCESSOR.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_C_COMPILER ${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32-gcc-posix) # GoogleTest asks for one
set(CMAKE_CXX_COMPILER ${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER ${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32-windres)

# Only the target's own libraries and headers are found, and only the host's programs.
set(CMAKE_FIND_ROOT_PATH /usr/${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Programs carry the compiler's libraries within themselves, so that they start on a system without MinGW.
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
