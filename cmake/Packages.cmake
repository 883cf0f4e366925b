# `cpack` makes a package of what `cmake --install` installs; name and version are the project's.
set(CPACK_PACKAGE_NAME brindle-managed-whatsapp-backend)
set(CPACK_PACKAGE_VENDOR "the BrindleManagedWhatsAppBackend authors")
set(CPACK_PACKAGE_CONTACT "the BrindleManagedWhatsAppBackend authors")
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_SOURCE_DIR}/LICENSE)
set(CPACK_GENERATOR TGZ)
# cpack -G DEB
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(BRINDLE_WEB_WORKER)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "bubblewrap, xdg-dbus-proxy")
endif()
include(CPack)
