# SPDX-License-Identifier: BSD-2-Clause
# cpack makes a .deb of each component: what a machine runs, what a parent links, what people use.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qora-codec)
set(CPACK_PACKAGE_VENDOR "the qora-codec authors")
set(QORA_MAINTAINER "qora-codec authors <authors@example.org>" CACHE STRING "who makes the packages")
set(CPACK_PACKAGE_CONTACT ${QORA_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL service bridge session client tools doc)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What Debian wants to find beside every package. The time stands still, so that two builds agree.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/debian)
file(READ ${PROJECT_SOURCE_DIR}/LICENSE license)
file(WRITE ${PROJECT_BINARY_DIR}/debian/copyright "${license}
On Debian systems the GNU General Public License, version 2, is in /usr/share/common-licenses/GPL-2.\n")
file(WRITE ${PROJECT_BINARY_DIR}/debian/changelog
  "qora-codec (${PROJECT_VERSION}) bookworm; urgency=medium\n\n  * See CHANGELOG.md in qora-codec-doc.\n\n"
  " -- ${CPACK_PACKAGE_CONTACT}  Mon, 23 Nov 2026 00:00:00 +0000\n")
execute_process(COMMAND gzip -9nkf ${PROJECT_BINARY_DIR}/debian/changelog COMMAND_ERROR_IS_FATAL ANY)

# qora_package(COMPONENT PACKAGE SECTION DEPENDS SUMMARY DESCRIPTION)
function(qora_package name package section depends summary description)
  string(TOUPPER ${name} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
  install(FILES ${PROJECT_BINARY_DIR}/debian/copyright ${PROJECT_BINARY_DIR}/debian/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${name})
endfunction()

set(same "(= ${PROJECT_VERSION})")
# The bridge opens the encoder library by name, so no tool finds that it needs it.
file(STRINGS ${X264_INCLUDE_DIR}/x264.h x264_build REGEX "^#define X264_BUILD ")
string(REGEX REPLACE ".*X264_BUILD +" "" x264_build "${x264_build}")
qora_package(service qora-codec video "qora-codec-bridge ${same}"
  "codec service that encodes pictures of a screen"
  "A headless helper process that encodes raw pictures to H.264 for the program\nthat starts it: commands by standard input, pictures in shared memory.")
qora_package(bridge qora-codec-bridge video "libx264-${x264_build}"
  "encoder library for qora-codec over the installed libx264"
  "Offers qora-codec the interface that it knows and drives the libx264 that the\ndistribution ships.")
qora_package(session libqora-session0 libs "qora-codec ${same}, libc6 (>= 2.36), libgcc-s1, libstdc++6 (>= 12)"
  "parent's session with qora-codec as a C library"
  "For programs in C and every language that calls C: starts the codec service,\nowns the pictures, holds a bitrate and gives H.264.")
# By hand: where cpack finds dependencies itself, it runs ldconfig from scripts that nobody needs.
set(CPACK_DEBIAN_SESSION_PACKAGE_SHLIBDEPS OFF)
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
file(WRITE ${PROJECT_BINARY_DIR}/debian/shlibs "libqora-session 0 libqora-session0 (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_SESSION_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/debian/triggers ${PROJECT_BINARY_DIR}/debian/shlibs)
qora_package(client libqora-client-dev libdevel "qora-codec ${same}, libqora-session0 ${same}"
  "parent's side of qora-codec"
  "Starts the codec service, speaks to it, keeps pictures, damage, quality and\nbandwidth in order. Static libraries, the C library libqora-session, headers,\nCMake and pkg-config files.")
qora_package(tools qora-tools video "qora-codec ${same}"
  "programs that encode and show screens with qora-codec"
  "qora-encode makes H.264 of clips, qora-record records what an X server or a\nWayland compositor shows, qora-view plays and verifies such streams in a\nwindow, qora-serve shows a live screen in browsers.")
qora_package(doc qora-codec-doc doc ""
  "documents of qora-codec"
  "The protocol of the codec service with every byte, how a parent is written\nin C++, C and other languages, tuning and serving, what is measured and\npromised; examples, a systemd unit and a recipe for a container image.")
set(CPACK_DEBIAN_CLIENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOC_PACKAGE_SHLIBDEPS OFF)
include(CPack)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qora-codec-doc
        COMPONENT doc PATTERN man EXCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qora-codec-doc COMPONENT doc)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples ${PROJECT_SOURCE_DIR}/deploy DESTINATION
        ${CMAKE_INSTALL_DATADIR}/doc/qora-codec-doc COMPONENT doc)
