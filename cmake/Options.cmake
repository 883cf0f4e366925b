# What can be left out. What is left out needs none of its packages.
option(BRINDLE_WEB_WORKER "Build the built-in web worker's engine module (needs WebKitGTK)" ON)
option(BRINDLE_CONSOLE "Build BrindleBridgeConsole, which plays the parent" ON)
option(BRINDLE_BENCHES "Build what measures the system" ON)
option(BRINDLE_FUZZ "Build the fuzz targets (needs clang)" OFF)
set(BRINDLE_SANITIZE "" CACHE STRING "Sanitizers to build with, as the compiler names them")

if(BUILD_TESTING AND NOT (BRINDLE_WEB_WORKER AND BRINDLE_CONSOLE))
  message(FATAL_ERROR "The tests drive the whole system; without BRINDLE_WEB_WORKER or BRINDLE_CONSOLE, configure with "
                      "-DBUILD_TESTING=OFF.")
endif()
