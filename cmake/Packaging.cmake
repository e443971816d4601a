# Install rules and Debian packages.
#
#   cmake --install <build> --prefix <dir>    worker in <dir>/bin
#   cpack --config <build>/CPackConfig.cmake   halvarine_<version>_<arch>.deb
#
# The package installs under /usr. A native build lets dpkg-shlibdeps work
# out the run-time dependencies; a cross build (toolchain-armhf.cmake sets
# HALVARINE_DEB_ARCH) names them itself, so packaging does not depend on
# which target libraries happen to be installed on the build host.

include(GNUInstallDirs)

install(TARGETS halvarine RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Hook for the tools that ship beside the worker: a tool's CMakeLists calls
# halvarine_install_tool(<target>...) and the program lands in bin/ of the
# same package. Test-only programs (test servers, fetch helpers) do not.
function(halvarine_install_tool)
  install(TARGETS ${ARGN} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()

set(HALVARINE_MAINTAINER "Halvarine developers <halvarine@example.invalid>"
  CACHE STRING "Maintainer field of the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME halvarine)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${HALVARINE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# CPack makes the summary the description's first line and indents the rest.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "MMS stream fetching worker")
set(CPACK_PACKAGE_DESCRIPTION "A small single-threaded worker process that opens MMS network
media streams (MMS over TCP and MMS over HTTP, through libmms) for a
controller process, which drives it with framed requests over the
Unix-domain socket /tmp/zalProcess_Halvarine. It is started by the
controller and takes no arguments or configuration.")

if(DEFINED HALVARINE_DEB_ARCH)
  # Found by running dpkg-shlibdeps on an armhf build with the armhf
  # libraries installed; libgcc-s1 3.5 is where ARM's unwinder symbols start.
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${HALVARINE_DEB_ARCH})
  set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libmms0 (>= 0.4), libstdc++6 (>= 11)")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()

include(CPack)
