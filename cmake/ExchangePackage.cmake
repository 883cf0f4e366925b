# The rooms up to `exchange`, for native workers that are built against an installation: find_package(BrindleExchange)
# gives Brindle::exchange.
include(CMakePackageConfigHelpers)

set(exchange_rooms text records system bridge exchange)
set(header_directory ${CMAKE_INSTALL_INCLUDEDIR}/brindle-managed-whatsapp-backend)
set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/BrindleExchange)

foreach(room ${exchange_rooms})
  target_compile_features(${room} PUBLIC cxx_std_20)
  target_include_directories(${room} INTERFACE $<INSTALL_INTERFACE:${header_directory}>)
  install(
    DIRECTORY ${CMAKE_SOURCE_DIR}/BrindleManagedWhatsAppBackend/${room}
    DESTINATION ${header_directory}
    COMPONENT Development
    FILES_MATCHING PATTERN "*.h")
endforeach()
add_library(Brindle::exchange ALIAS exchange)

install(
  TARGETS asio ${exchange_rooms}
  EXPORT BrindleExchange
  ARCHIVE DESTINATION ${BRINDLE_PRIVATE_LIBRARY_DIRECTORY} COMPONENT Development)
install(EXPORT BrindleExchange NAMESPACE Brindle:: FILE BrindleExchangeTargets.cmake DESTINATION ${package_directory}
        COMPONENT Development)
configure_package_config_file(cmake/BrindleExchangeConfig.cmake.in BrindleExchangeConfig.cmake
                              INSTALL_DESTINATION ${package_directory})
write_basic_package_version_file(BrindleExchangeConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/BrindleExchangeConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/BrindleExchangeConfigVersion.cmake
        DESTINATION ${package_directory} COMPONENT Development)
