# Debian packages of the production build (scripts/package makes them):
#   libkovasharing1      runtime component: the two libraries, schema scripts, PAM service,
#                        and (from its maintainer scripts) the state directories
#   libkovasharing-dev   dev component: headers, namelinks, CMake package, pkg-config file
#   kovasharing-tools    tools component: administrator tool and visitor gate, when built
#
# Only a build with the appliance's own paths can be packaged: a test build's paths point into
# a scratch directory and must never reach a machine through a package.
if(KOVA_ROOT_CLEAN)
  return()
endif()

set(KOVA_PKG_SHARING_DIR "${KOVA_SHARING_DB_PATH}")
cmake_path(GET KOVA_PKG_SHARING_DIR PARENT_PATH KOVA_PKG_SHARING_DIR)
# The platform layer keeps its failed-login counters here (see platform/src/kova_autoblock.cpp).
set(KOVA_PKG_AUTOBLOCK_DIR "/usr/kova/etc/private/autoblock")
set(KOVA_PKG_PAM_FILE "/etc/pam.d/kovasharing")

set(KOVA_PKG_DIR ${CMAKE_CURRENT_BINARY_DIR}/packaging/libkovasharing1)
configure_file(packaging/deb/postinst.in ${KOVA_PKG_DIR}/postinst @ONLY)
configure_file(packaging/deb/postrm.in ${KOVA_PKG_DIR}/postrm @ONLY)
file(WRITE ${KOVA_PKG_DIR}/conffiles "${KOVA_PKG_PAM_FILE}\n")
# The dynamic linker's cache is refreshed once per dpkg run, after all packages are in.
file(WRITE ${KOVA_PKG_DIR}/triggers "activate-noawait ldconfig\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kovasharing)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "kovasharing maintainers <kovasharing@localhost>")
set(CPACK_PACKAGE_FILE_NAME kovasharing-${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR})
set(CPACK_OUTPUT_FILE_PREFIX "")
# The appliance paths (schema directory, PAM service) are absolute destinations; DESTDIR
# staging keeps them, and everything else, inside the package tree.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps must find the runtime libraries that the tools link: they are in the runtime
# package's staging tree. It has no dependency information for them (they are not installed);
# the tools' dependency on libkovasharing1 is stated below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${CMAKE_BINARY_DIR}/_CPack_Packages/${CMAKE_SYSTEM_NAME}/DEB/${CPACK_PACKAGE_FILE_NAME}/runtime${CMAKE_INSTALL_FULL_LIBDIR}")
# A shlibs file for the runtime package, so that packages built against it get their
# dependency from dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkovasharing1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The PAM service includes the system's common stacks; libcrypto (MD5 digests) and libgcrypt
# (salted SHA-1 digests) are opened at run time, so dpkg-shlibdeps cannot see them.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libpam-runtime, libssl3, libgcrypt20")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${KOVA_PKG_DIR}/postinst;${KOVA_PKG_DIR}/postrm;\
${KOVA_PKG_DIR}/conffiles;${KOVA_PKG_DIR}/triggers")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkovasharing-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# Headers, namelinks and CMake files only: nothing for dpkg-shlibdeps to look at.
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
# The public headers use JsonCpp's types.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libkovasharing1 (= ${PROJECT_VERSION}), libjsoncpp-dev")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kovasharing-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
# Built from the same tree as the libraries they link, so tied to that very version; the other
# libraries they load (libfcgi, libqrencode) dpkg-shlibdeps adds.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkovasharing1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "lighttpd | nginx | apache2")

# The first line of each description is the package's synopsis.
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "sharing-link library of the appliance\n\
Records, stores and visitor login of sharing links kept in one SQLite database, the\n\
platform services they use on plain Linux, the database schema scripts and the PAM\n\
service of account logins.")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "sharing-link library of the appliance - development files\n\
Public C++ and C headers, the CMake package and the pkg-config file.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "sharing-link administrator tool and visitor gate of the appliance\n\
The kovasharing command-line tool and the kovasharing-gate CGI program.")

# Only components that have install rules by now (the tools and the gate are included before
# this file) become packages; test and example rules stay out.
get_cmake_property(KOVA_INSTALL_COMPONENTS COMPONENTS)
set(CPACK_COMPONENTS_ALL "")
foreach(component runtime dev tools)
  if(component IN_LIST KOVA_INSTALL_COMPONENTS)
    list(APPEND CPACK_COMPONENTS_ALL ${component})
  endif()
endforeach()

include(CPack)
