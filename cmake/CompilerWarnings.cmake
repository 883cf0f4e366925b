# One list of warnings for the whole tree. The presets make a warning an error; whoever packages the system with another
# compiler is not stopped by what that one has learnt since.
add_compile_options(
  -Wall
  -Wextra
  -Wpedantic
  -Wconversion
  -Wsign-conversion
  -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
  -Wcast-align
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
  -Wformat=2
  -Wimplicit-fallthrough)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 reports overlaps inside std::string that cannot happen (GCC bug 105329).
  add_compile_options(-Wno-restrict)
  if(CMAKE_UNITY_BUILD OR BUILD_TESTING)
    # Where several sources make one translation unit, it takes them for headers, in which a type of an anonymous
    # namespace must not be a member.
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-subobject-linkage>)
  endif()
endif()
