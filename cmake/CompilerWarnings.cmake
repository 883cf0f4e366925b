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
