# Install rules: the layout of an installed Halvarine, which the Debian
# packages take as it is (debian/rules installs through these rules).
#
#   <libexecdir>/halvarine/halvarine   the worker; controllers start it,
#                                      people do not, so it is off PATH
#   <bindir>/halvarine-fetch           the command-line controller
#   controller/CMakeLists.txt          the controller library, its headers,
#                                      pkg-config and CMake package files
#
# halvarine-fetch finds the worker at ../libexec/halvarine/halvarine from
# its own directory, so an installed prefix works wherever it sits; the
# controller library starts ${CMAKE_INSTALL_FULL_LIBEXECDIR}/halvarine/halvarine
# when the caller names no worker. Test servers and test programs are never
# installed.

include(GNUInstallDirs)

install(TARGETS halvarine RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/halvarine)

# A tool's CMakeLists calls halvarine_install_tool(<target>...) for the
# programs that people run.
function(halvarine_install_tool)
  install(TARGETS ${ARGN} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()
