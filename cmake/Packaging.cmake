# What is installed, and the Debian package that is made of it (cpack -G DEB). Folders follow
# GNUInstallDirs; vaultctl looks for the worker in libexec beside its own bin.
set(CMAKE_INSTALL_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/vaultmover)
set(VAULTMOVER_CONTACT
    "VaultMover maintainers <vaultmover@example.org>"
    CACHE STRING "The maintainer that the package names")

install(TARGETS VaultMover RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR})
install(TARGETS vaultctl)
install(DIRECTORY docs/ TYPE DOC FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")
install(FILES README.md NEWS.md TYPE DOC)
install(FILES cmake/debian/copyright TYPE DOC)
install(
    FILES host/completion/vaultctl.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    RENAME vaultctl)

find_program(GZIP gzip REQUIRED)
# Debian's rules want these compressed, and without the time of the build in them.
function(install_compressed file destination name)
    add_custom_command(
        OUTPUT ${name}.gz
        COMMAND ${GZIP} -9nc ${file} > ${name}.gz
        DEPENDS ${file}
        VERBATIM)
    add_custom_target(compressed_${name} ALL DEPENDS ${name}.gz)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz DESTINATION ${destination})
endfunction()
install_compressed(${CMAKE_SOURCE_DIR}/docs/VaultMover.8 ${CMAKE_INSTALL_MANDIR}/man8 VaultMover.8)
install_compressed(${CMAKE_SOURCE_DIR}/docs/vaultctl.1 ${CMAKE_INSTALL_MANDIR}/man1 vaultctl.1)
configure_file(cmake/debian/changelog.in changelog @ONLY)
install_compressed(${CMAKE_BINARY_DIR}/changelog ${CMAKE_INSTALL_DOCDIR} changelog)

install(
    FILES cmake/debian/lintian-overrides
    DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
    RENAME vaultmover)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vaultmover)
set(CPACK_PACKAGE_CONTACT "${VAULTMOVER_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "move a directory into or out of eCryptfs, resumably")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Moves the files of a directory tree into an encrypted directory on an eCryptfs
mount, or back, one file at a time. A move that is stopped in any way, by a
pause, a kill or a power cut, loses no file and carries on when it is started
again. vaultctl is for people and scripts; the worker VaultMover is for
programs that speak its protocol.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The architecture that is built for, not the one that builds.
execute_process(
    COMMAND dpkg-architecture -f -t ${CMAKE_LIBRARY_ARCHITECTURE} -q DEB_HOST_ARCH
    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
    OUTPUT_STRIP_TRAILING_WHITESPACE)
include(CPack)
