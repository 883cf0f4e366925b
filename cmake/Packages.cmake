# `cpack -G TGZ` makes one package of all that `cmake --install` installs, `cpack -G DEB` one of each component but
# `Development`; `cpack --config CPackSourceConfig.cmake` one of the sources. Name and version are the project's.
set(CPACK_PACKAGE_NAME brindle-managed-whatsapp-backend)
set(CPACK_PACKAGE_VENDOR "the BrindleManagedWhatsAppBackend authors")
# Whoever gives packages to others puts an address there at which they are reached (cpack -D).
set(CPACK_PACKAGE_CONTACT "BrindleManagedWhatsAppBackend authors <brindle-managed-whatsapp-backend@packages.brindle.invalid>")
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_SOURCE_DIR}/LICENSE)
set(CPACK_GENERATOR TGZ)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_PACKAGE_FILE_NAME ${CPACK_PACKAGE_NAME}-${PROJECT_VERSION})
# As .gitignore has it, and what git keeps of its own. A path may hold characters that mean something in a pattern.
string(REGEX REPLACE "([][+.*()^$?|\\])" "\\\\\\1" source_pattern ${CMAKE_SOURCE_DIR})
set(CPACK_SOURCE_IGNORE_FILES "^${source_pattern}/build/" "^${source_pattern}/\\.cache/" "^${source_pattern}/\\.git(/|$)" "\\.swp$")

# Each package has a summary of its own, the first line of its description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL Backend Examples)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/PrepareDebianPackages.cmake)

set(CPACK_DEBIAN_BACKEND_PACKAGE_NAME ${CPACK_PACKAGE_NAME})
set(CPACK_COMPONENT_BACKEND_DESCRIPTION "helper that brings a messaging account into an application
An application starts it, talks to it over lines of JSON, and listens to a
watched chat. This package has the helper, a console that plays the
application, the documents and the JSON Schemas. A native worker or the
package of the web worker connects it to the messaging service.")
set(CPACK_DEBIAN_BACKEND_PACKAGE_SHLIBDEPS ON)
# Its documents lead to the samples.
set(CPACK_DEBIAN_BACKEND_PACKAGE_DEPENDS "brindle-managed-whatsapp-examples (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_EXAMPLES_PACKAGE_NAME brindle-managed-whatsapp-examples)
set(CPACK_COMPONENT_EXAMPLES_DESCRIPTION "samples for the helper that brings a messaging account along
Applications and native workers in several languages to start from, scripts
for the console, and a web client to try things on, which needs no network.")
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SECTION doc)

if(BRINDLE_WEB_WORKER)
  list(APPEND CPACK_COMPONENTS_ALL WebWorker)
  set(CPACK_DEBIAN_WEBWORKER_PACKAGE_NAME brindle-managed-whatsapp-web-worker)
  set(CPACK_COMPONENT_WEBWORKER_DESCRIPTION "web worker of the helper that brings a messaging account along
A module with which the helper shows the web client of the messaging service
in a hidden view, in a sandbox, and takes the messages of a chat from it.")
  set(CPACK_DEBIAN_WEBWORKER_PACKAGE_SHLIBDEPS ON)
  # It fits the helper of its own version alone.
  set(CPACK_DEBIAN_WEBWORKER_PACKAGE_DEPENDS
      "${CPACK_PACKAGE_NAME} (= ${PROJECT_VERSION}), bubblewrap, xdg-dbus-proxy")
  set(CPACK_DEBIAN_BACKEND_PACKAGE_RECOMMENDS brindle-managed-whatsapp-web-worker)
endif()
include(CPack)
