# 32-bit x86 on a 64-bit Linux, whose kernel runs these programs as its own.
set(CMAKE_C_FLAGS_INIT -m32) # GoogleTest asks for a C compiler too
set(CMAKE_CXX_FLAGS_INIT -m32)
list(APPEND CMAKE_LIBRARY_PATH /usr/lib32)
