# Installation and the Debian package.
#
# The install rules lay out what an administrator gets: the programs and the
# shipped instruction files under the product's fixed install root, links to
# the programs in the prefix's bin folder, manual pages, bash completion and
# the package's documents. `cmake --install` (honouring DESTDIR) and CPack's
# DEB generator both use these same rules, so an installed tree and the
# package hold the same files.
#
# The programs stay in the install root rather than in /usr/bin because they
# find their instruction files in xml/config/ beside the real program, and
# the rest of the client family expects them there.

include_guard(GLOBAL)

# Everything outside the install root follows the usual Debian places.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX "/usr" CACHE PATH "Install prefix" FORCE)
endif()
include(GNUInstallDirs)

# Fixed by the product: the tool reads its policy and catalogues there.
set(KEEL_INSTALL_ROOT "/opt/velon/tesselclient")
set(KEEL_PACKAGE_NAME "keelcli")
set(KEEL_PACKAGE_CONTACT "Velon Networks <keelcli@velon.example>")

# Folders made by the install get these bits whatever the umask says.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(keel_data_permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

set(keel_package_staging ${CMAKE_BINARY_DIR}/package)

# A program in the install root, with its link in the bin folder. The link
# is absolute: it leads from /usr into /opt, another top-level folder.
function(keel_install_program target)
  install(TARGETS ${target} RUNTIME DESTINATION ${KEEL_INSTALL_ROOT})
  set(link ${keel_package_staging}/bin/${target})
  file(MAKE_DIRECTORY ${keel_package_staging}/bin)
  file(CREATE_LINK ${KEEL_INSTALL_ROOT}/${target} ${link} SYMBOLIC)
  install(FILES ${link} DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()

# Manual pages and the changelog go in compressed with gzip -9n, as Debian
# wants them: smallest, and without a name or time stamp in the header.
set(keel_compressed_docs)
function(keel_compress source output)
  add_custom_command(OUTPUT ${output}
    COMMAND gzip -9n -c ${source} > ${output}
    DEPENDS ${source}
    COMMENT "Compressing ${source}"
    VERBATIM)
  set(keel_compressed_docs ${keel_compressed_docs} ${output} PARENT_SCOPE)
endfunction()

file(MAKE_DIRECTORY ${keel_package_staging}/man ${keel_package_staging}/doc)
foreach(page keelcli.1 keelcheck.1 keel-instructions.5)
  keel_compress(${CMAKE_SOURCE_DIR}/man/${page} ${keel_package_staging}/man/${page}.gz)
endforeach()
keel_compress(${CMAKE_SOURCE_DIR}/packaging/changelog ${keel_package_staging}/doc/changelog.gz)
add_custom_target(keel_package_docs ALL DEPENDS ${keel_compressed_docs})

# keelcli itself and what it reads.
keel_install_program(keelcli)
file(GLOB keel_shipped_configs CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/xml/config/*.xml)
install(FILES ${keel_shipped_configs}
  DESTINATION ${KEEL_INSTALL_ROOT}/xml/config
  PERMISSIONS ${keel_data_permissions})
install(FILES ${keel_package_staging}/man/keelcli.1.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 PERMISSIONS ${keel_data_permissions})
install(FILES ${keel_package_staging}/man/keel-instructions.5.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 PERMISSIONS ${keel_data_permissions})
install(FILES ${CMAKE_SOURCE_DIR}/completion/keelcli
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  PERMISSIONS ${keel_data_permissions})

# The schema of the instruction files, beside them, for keelcheck and for
# authors' editors.
file(GLOB keel_schemas CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/xml/schema/*.rng)
if(keel_schemas)
  install(FILES ${keel_schemas}
    DESTINATION ${KEEL_INSTALL_ROOT}/xml/schema
    PERMISSIONS ${keel_data_permissions})
endif()

# The checker of instruction files goes in beside keelcli when it is part of
# the build. Its target may be defined after this file is read, so the test
# waits for the end of the top-level folder.
function(keel_install_checker)
  if(NOT TARGET keelcheck)
    return()
  endif()
  keel_install_program(keelcheck)
  install(FILES ${keel_package_staging}/man/keelcheck.1.gz
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 PERMISSIONS ${keel_data_permissions})
  install(FILES ${CMAKE_SOURCE_DIR}/completion/keelcheck
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    PERMISSIONS ${keel_data_permissions})
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL keel_install_checker)

# The rule that removes at boot the working folders of runs the host's
# going down ended (systemd-tmpfiles reads /usr/lib/tmpfiles.d).
install(FILES ${CMAKE_SOURCE_DIR}/packaging/tmpfiles.conf
  DESTINATION lib/tmpfiles.d
  RENAME ${KEEL_PACKAGE_NAME}.conf
  PERMISSIONS ${keel_data_permissions})

# The package's own documents.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/copyright ${keel_package_staging}/doc/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${KEEL_PACKAGE_NAME}
  PERMISSIONS ${keel_data_permissions})
install(FILES ${CMAKE_SOURCE_DIR}/packaging/lintian-overrides
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
  RENAME ${KEEL_PACKAGE_NAME}
  PERMISSIONS ${keel_data_permissions})

# The shipped instruction files are conffiles: dpkg keeps an administrator's
# edits on an upgrade and asks before replacing them.
set(keel_conffiles "")
foreach(config ${keel_shipped_configs})
  get_filename_component(name ${config} NAME)
  string(APPEND keel_conffiles "${KEEL_INSTALL_ROOT}/xml/config/${name}\n")
endforeach()
file(MAKE_DIRECTORY ${keel_package_staging}/control)
file(WRITE ${keel_package_staging}/control/conffiles "${keel_conffiles}")

# The first line of packaging/description is the synopsis, the rest the long
# description.
file(READ ${CMAKE_SOURCE_DIR}/packaging/description keel_description)
string(FIND "${keel_description}" "\n" keel_first_break)
string(SUBSTRING "${keel_description}" 0 ${keel_first_break} keel_synopsis)
math(EXPR keel_rest_start "${keel_first_break} + 1")
string(SUBSTRING "${keel_description}" ${keel_rest_start} -1 keel_long_description)

set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME ${KEEL_PACKAGE_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Velon Networks")
set(CPACK_PACKAGE_CONTACT ${KEEL_PACKAGE_CONTACT})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${keel_synopsis}")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "${keel_long_description}")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "admin")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
# Library dependencies come from the programs themselves, through
# dpkg-shlibdeps. The shipped instructions run programs of the packages
# below; a missing one only leaves its output out of the bundle.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "iproute2, procps, systemd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "network-manager, systemd-resolved, wireguard-tools, unzip")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${keel_package_staging}/control/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_STRIP_FILES TRUE)
include(CPack)
