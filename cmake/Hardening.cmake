# What the compiler and the linker can do against the use of a defect, in the builds that people run: it needs an
# optimised build, and a sanitizer brings its own. tests/build/check-hardening looks for it in what was built.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckLinkerFlag)

# Packagers may optimise by flags of their own, so the compiler is asked, anew each time.
set(CMAKE_REQUIRED_QUIET ON)
string(TOUPPER "${CMAKE_BUILD_TYPE}" build_type)
set(CMAKE_REQUIRED_FLAGS "${CMAKE_CXX_FLAGS_${build_type}}")
unset(BRINDLE_IS_OPTIMISED CACHE)
check_cxx_source_compiles("
#ifndef __OPTIMIZE__
#error not optimised
#endif
int main() {}" BRINDLE_IS_OPTIMISED)
unset(CMAKE_REQUIRED_FLAGS)

if(NOT BRINDLE_IS_OPTIMISED)
  set(BRINDLE_NOT_HARDENED_BECAUSE "a build without optimisation is not hardened")
elseif(NOT BRINDLE_SANITIZE)
  foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER "BRINDLE_HAS${flag}" has_flag)
    check_cxx_compiler_flag(${flag} ${has_flag})
    if(${has_flag})
      add_compile_options(${flag})
    endif()
  endforeach()

  # Compilers may define a level of their own. 3 sees more than 2, where compiler and C library know it.
  set(CMAKE_REQUIRED_FLAGS "${CMAKE_CXX_FLAGS_${build_type}} -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
  check_cxx_source_compiles("
#include <cstdlib>
#if __USE_FORTIFY_LEVEL < 3
#error not known
#endif
int main() {}" BRINDLE_HAS_FORTIFY_SOURCE_3)
  unset(CMAKE_REQUIRED_FLAGS)
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=$<IF:$<BOOL:${BRINDLE_HAS_FORTIFY_SOURCE_3}>,3,2>)

  # A module is independent of its position anyway.
  add_compile_options($<$<NOT:$<STREQUAL:$<TARGET_PROPERTY:TYPE>,MODULE_LIBRARY>>:-fPIE>)
  add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>)

  foreach(flag relro now)
    check_linker_flag(CXX "LINKER:-z,${flag}" BRINDLE_HAS_Z_${flag})
    if(BRINDLE_HAS_Z_${flag})
      add_link_options("LINKER:-z,${flag}")
    endif()
  endforeach()
endif()
