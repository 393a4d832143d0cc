# Installation layout, development files (pkg-config, CMake package) and
# the Debian package.  Included by the top-level CMakeLists.txt after all
# targets exist.
include(CMakePackageConfigHelpers)

# TARVD_MODULE_CONF_DIR and TARVD_MODULE_DIR: see InstallHelpers.cmake.
set(TARVD_DOC_DIR "${CMAKE_INSTALL_DATAROOTDIR}/doc/tarvd")
set(TARVD_HELPER_DIR "${CMAKE_INSTALL_LIBEXECDIR}/tarvd")
set(TARVD_MAINTAINER "tarvd maintainers <tarvd@example.org>")
set(TARVD_SYSTEMD_UNIT_DIR "${CMAKE_INSTALL_PREFIX}/lib/systemd/system"
    CACHE PATH "Directory of the systemd unit files")
set(TARVD_PKG ${CMAKE_SOURCE_DIR}/packaging)
set(TARVD_PKG_OUT ${CMAKE_BINARY_DIR}/packaging)

# The module header carries the library's major version, which every module
# compiles into its table; it must follow the project version.
file(STRINGS ${CMAKE_SOURCE_DIR}/framework/tarvd_module.h _major_line
     REGEX "^#define TARVD_MODULE_LIBRARY_MAJOR [0-9]+u$")
string(REGEX REPLACE "^#define TARVD_MODULE_LIBRARY_MAJOR ([0-9]+)u$" "\\1" _header_major "${_major_line}")
if(NOT _header_major STREQUAL PROJECT_VERSION_MAJOR)
  message(FATAL_ERROR "framework/tarvd_module.h: TARVD_MODULE_LIBRARY_MAJOR is '${_header_major}', "
                      "the project's major version is ${PROJECT_VERSION_MAJOR}")
endif()

# --- development files ------------------------------------------------------
# The module interface also under framework/, where the sources include it
# from ("framework/tarvd_module.h"), so that a module builds unchanged in
# and out of the tree.
install(FILES ${CMAKE_SOURCE_DIR}/framework/tarvd_module.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarvd/framework)
target_compile_features(tarvd INTERFACE cxx_std_20)

install(EXPORT tarvdTargets NAMESPACE tarvd::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarvd)
configure_package_config_file(${TARVD_PKG}/templates/tarvdConfig.cmake.in
  ${TARVD_PKG_OUT}/tarvdConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarvd
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${TARVD_PKG_OUT}/tarvdConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${TARVD_PKG_OUT}/tarvdConfig.cmake ${TARVD_PKG_OUT}/tarvdConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarvd)

# pkg-config: paths relative to ${prefix} where possible, so that a sysroot
# or --define-prefix relocates them.
set(TARVD_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(TARVD_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(TARVD_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
set(TARVD_PC_DL "")
foreach(lib ${CMAKE_DL_LIBS})
  string(APPEND TARVD_PC_DL " -l${lib}")
endforeach()
string(STRIP "${TARVD_PC_DL}" TARVD_PC_DL)
configure_file(${TARVD_PKG}/templates/tarvd.pc.in ${TARVD_PKG_OUT}/tarvd.pc @ONLY)
install(FILES ${TARVD_PKG_OUT}/tarvd.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# --- bundled module configuration -------------------------------------------
if(TARGET tarvd_example)
  set(TARVD_EXAMPLE_LIBRARY "${CMAKE_INSTALL_FULL_LIBDIR}/tarvd/modules/libtarvd_example.so")
  configure_file(${TARVD_PKG}/templates/example.conf.in ${TARVD_PKG_OUT}/modules.d/example.conf @ONLY)
  install(FILES ${TARVD_PKG_OUT}/modules.d/example.conf DESTINATION ${TARVD_MODULE_CONF_DIR})
endif()

# --- services -----------------------------------------------------------------
set(KOPD_PATH "${CMAKE_INSTALL_FULL_SBINDIR}/kopd")
set(HELPER_PATH "${CMAKE_INSTALL_FULL_LIBEXECDIR}/tarvd/kopd-shutdown-helper")
foreach(unit kopd.service kopd-forking.service kopd-runlevel.service)
  configure_file(${TARVD_PKG}/${unit} ${TARVD_PKG_OUT}/systemd/${unit} @ONLY)
endforeach()
install(FILES ${TARVD_PKG_OUT}/systemd/kopd.service ${TARVD_PKG_OUT}/systemd/kopd-runlevel.service
        DESTINATION ${TARVD_SYSTEMD_UNIT_DIR})
install(PROGRAMS ${TARVD_PKG}/kopd-shutdown-helper DESTINATION ${TARVD_HELPER_DIR})

# --- manual pages, examples and the package's documents ---------------------
tarvd_install_man(${TARVD_PKG}/man/kopd.8)
install(FILES ${TARVD_PKG}/TraceConfig/global_trace.ini ${TARVD_PKG}/TraceConfig/kopd.ini
        DESTINATION ${TARVD_DOC_DIR}/examples/TraceConfig)
install(FILES ${TARVD_PKG}/module/CMakeLists.txt ${TARVD_PKG}/module/Makefile ${TARVD_PKG}/module/example.conf
              ${CMAKE_SOURCE_DIR}/modules/example/ExampleModule.cpp
        DESTINATION ${TARVD_DOC_DIR}/examples/module)
install(FILES ${TARVD_PKG_OUT}/systemd/kopd-forking.service DESTINATION ${TARVD_DOC_DIR}/examples/systemd)
install(FILES ${CMAKE_SOURCE_DIR}/docs/module-developer-guide.md ${CMAKE_SOURCE_DIR}/README.md
              ${TARVD_PKG}/debian/copyright
        DESTINATION ${TARVD_DOC_DIR})
# The package's change log names the version being built: a release bumps
# both together.
file(STRINGS ${TARVD_PKG}/debian/changelog _changelog_top LIMIT_COUNT 1)
if(NOT _changelog_top MATCHES "^tarvd \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/debian/changelog: the newest entry is '${_changelog_top}', "
                      "the project's version is ${PROJECT_VERSION}")
endif()
tarvd_gzip(${TARVD_PKG}/debian/changelog ${TARVD_PKG_OUT}/changelog.gz)
install(FILES ${TARVD_PKG_OUT}/changelog.gz DESTINATION ${TARVD_DOC_DIR})

# --- Debian package (cpack -G DEB) -------------------------------------------
set(CPACK_PACKAGE_NAME tarvd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${TARVD_MAINTAINER}")
set(CPACK_PACKAGE_VENDOR "tarvd")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "server-management agent daemon, module framework and tools")
set(CPACK_PACKAGE_DESCRIPTION
"The root daemon kopd of the tarvd server-management agent with its module
framework, bundled modules, command-line tools and the support library
libtarvd with the headers, pkg-config and CMake files to build modules.")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The shared-library dependencies come from dpkg-shlibdeps (versioned); the
# maintainer scripts enable and start the units with deb-systemd-helper and
# deb-systemd-invoke.  gzip, which the trace facility runs to compress the
# start-up trace, is an essential package: never listed.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "init-system-helpers (>= 1.54~)")
# libtarvd.so.9 is a public library that modules and programs link: its
# shlibs entry lets their packages depend on this version or a later one of
# the same major, and the ldconfig trigger refreshes the loader's cache once
# per dpkg run.  The framework libswitch.so is a private plug-in (no shlibs
# entry, no soname) in the package's own library directory.
file(WRITE ${TARVD_PKG_OUT}/debian/shlibs "libtarvd ${PROJECT_VERSION_MAJOR} tarvd (>= ${PROJECT_VERSION})\n")
file(WRITE ${TARVD_PKG_OUT}/debian/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
# conffiles: every module configuration file the package installs; listed
# by a script that looks into the staged files just before packaging.
set(TARVD_CONFFILES ${TARVD_PKG_OUT}/debian/conffiles)
file(MAKE_DIRECTORY ${TARVD_PKG_OUT}/debian)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${TARVD_PKG}/debian/postinst ${TARVD_PKG}/debian/prerm ${TARVD_PKG}/debian/postrm ${TARVD_CONFFILES}
  ${TARVD_PKG_OUT}/debian/shlibs ${TARVD_PKG_OUT}/debian/triggers)
set(CPACK_TARVD_CONFFILES ${TARVD_CONFFILES})
set(CPACK_TARVD_MODULE_CONF_DIR ${TARVD_MODULE_CONF_DIR})
set(CPACK_PRE_BUILD_SCRIPTS ${TARVD_PKG}/Conffiles.cmake)
include(CPack)
