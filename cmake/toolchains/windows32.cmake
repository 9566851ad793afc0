# 32-bit Windows; compiled only, for want of a 32-bit Wine.
set(CMAKE_SYSTEM_PROCESSOR i686)
include("${CMAKE_CURRENT_LIST_DIR}/mingw.cmake")
