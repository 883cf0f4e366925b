# Adds to the files of each Debian package, before it is made, what Debian wants in every one: its licence, a changelog in
# its own form, manual pages compressed. (What `file(INSTALL)` copies would land elsewhere: cpack sets DESTDIR.)
if(NOT CPACK_GENERATOR STREQUAL DEB)
  return()
endif()

# The time of a release build that is to be repeated (reproducible-builds.org), else now.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)

function(compress file)
  execute_process(COMMAND gzip --best --no-name ${file} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} variable)
  set(package ${CPACK_DEBIAN_${variable}_PACKAGE_NAME})
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX})
  set(documents ${root}/share/doc/${package})
  file(MAKE_DIRECTORY ${documents})
  file(COPY_FILE ${CPACK_RESOURCE_FILE_LICENSE} ${documents}/copyright)
  file(WRITE ${documents}/changelog "\
${CPACK_PACKAGE_NAME} (${CPACK_PACKAGE_VERSION}) stable; urgency=medium

  * What has changed is told in CHANGELOG.md of the helper.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  compress(${documents}/changelog)
  file(GLOB_RECURSE manual_pages ${root}/share/man/*)
  foreach(page ${manual_pages})
    compress(${page})
  endforeach()
endforeach()
