# The Debian package (make package): the three programs in /usr/bin, the
# manual pages, the bash completion and the examples with the documentation.
# Debian wants manual pages and the changelog compressed, without a time
# stamp in the gzip header (-n), so that the package builds reproducibly.
set(RV_PACKAGE_NAME rv-db-update)
set(RV_GZIPPED)
foreach(doc man/rv_db_update.1 man/rv_db.1 man/oaisql.1 packaging/changelog)
  get_filename_component(name ${doc} NAME)
  set(gz ${CMAKE_BINARY_DIR}/packaging/${name}.gz)
  add_custom_command(OUTPUT ${gz}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/packaging
    COMMAND gzip -9nc ${CMAKE_SOURCE_DIR}/${doc} > ${gz}
    DEPENDS ${CMAKE_SOURCE_DIR}/${doc} VERBATIM)
  list(APPEND RV_GZIPPED ${gz})
endforeach()
add_custom_target(compressed_docs ALL DEPENDS ${RV_GZIPPED})
list(POP_BACK RV_GZIPPED RV_CHANGELOG_GZ)

set(RV_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/${RV_PACKAGE_NAME})
install(FILES ${RV_GZIPPED} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${RV_CHANGELOG_GZ} DESTINATION ${RV_DOC_DIR} RENAME changelog.gz)
install(FILES packaging/copyright README.md DESTINATION ${RV_DOC_DIR})
install(DIRECTORY examples DESTINATION ${RV_DOC_DIR})
install(FILES packaging/rv_db_update.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME rv_db_update)
foreach(program rv_db oaisql)
  install(CODE "file(CREATE_LINK rv_db_update \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/bash-completion/completions/${program} SYMBOLIC)")
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${RV_PACKAGE_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_CONTACT "ravik update team <update@ravik.example.com>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "database and file update tool of the ravik backup server")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "rv_db_update brings the ravik_db database and the files of a ravik backup
server installation from one release to another, driven by an update
script. The package holds the loader oaisql and the export tool rv_db as
well, with manual pages, a bash completion and example scripts.")
include(CPack)
