# The warnings under which all of our own code compiles; linked privately, so that users never inherit them.
add_library(quorvex_warnings INTERFACE)
if(MSVC)
  target_compile_options(quorvex_warnings INTERFACE /W4)
else()
  target_compile_options(quorvex_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
endif()
# What Clang adds to -Wconversion over GCC.
target_compile_options(quorvex_warnings INTERFACE $<$<CXX_COMPILER_ID:Clang>:-Wno-sign-conversion>)
