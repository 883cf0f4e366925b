# One list of warnings for the whole tree; a warning is an error.
add_compile_options(
  -Wall
  -Wextra
  -Wpedantic
  -Wconversion
  -Wsign-conversion
  -Wshadow
  -Wold-style-cast
  -Wcast-align
  -Wnon-virtual-dtor
  -Woverloaded-virtual
  -Wformat=2
  -Wimplicit-fallthrough
  -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 reports overlaps inside std::string that cannot happen (GCC bug 105329).
  add_compile_options(-Wno-restrict)
endif()
