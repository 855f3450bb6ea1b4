# Installation (relocatable: `cmake --install build --prefix DIR` works for any DIR): the library with the reference platform it runs on, its headers, a CMake
# package (find_package(bix_ipc_shim) -> bix_ipc_shim::bix_ipc_shim) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(BIX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/bix_ipc_shim)
# Installed libraries find each other next to themselves, the tool finds them in lib/.
set_target_properties(bix_ipc_shim wex lumo superfasthash app_sess PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(bix-ipc PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
install(TARGETS bix_ipc_shim wex lumo superfasthash app_sess EXPORT bix_ipc_shimTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES
  ${BIX_GENERATED_HEADER}
  ${BIX_CPP_HEADERS}
  ${PROJECT_SOURCE_DIR}/platform/wex/include/wex.h
  ${PROJECT_SOURCE_DIR}/platform/lumo/include/lumo.h
  ${PROJECT_SOURCE_DIR}/platform/app_sess/include/app_sess.h
  ${PROJECT_SOURCE_DIR}/platform/superfasthash/include/superfasthash.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT bix_ipc_shimTargets NAMESPACE bix_ipc_shim:: DESTINATION ${BIX_CMAKE_DIR})
# The guide and the reference generated from the schema.
install(FILES ${BIX_REFERENCE_DOC} ${PROJECT_SOURCE_DIR}/docs/guide.md
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/bix_ipc_shim)

file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/bix_ipc_shimConfig.cmake.in [=[
@PACKAGE_INIT@
include("${CMAKE_CURRENT_LIST_DIR}/bix_ipc_shimTargets.cmake")
]=])
configure_package_config_file(${CMAKE_CURRENT_BINARY_DIR}/bix_ipc_shimConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/bix_ipc_shimConfig.cmake INSTALL_DESTINATION ${BIX_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/bix_ipc_shimConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/bix_ipc_shimConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/bix_ipc_shimConfigVersion.cmake DESTINATION ${BIX_CMAKE_DIR})

file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/bix_ipc_shim.pc.in [=[
prefix=${pcfiledir}/../..
libdir=${prefix}/@CMAKE_INSTALL_LIBDIR@
includedir=${prefix}/@CMAKE_INSTALL_INCLUDEDIR@

Name: bix_ipc_shim
Description: Messages of the carrier-card inter-process channel
Version: @PROJECT_VERSION@
Libs: -L${libdir} -Wl,-rpath-link,${libdir} -lbix_ipc_shim -lapp_sess -lwex -llumo
Cflags: -I${includedir}
]=])
configure_file(${CMAKE_CURRENT_BINARY_DIR}/bix_ipc_shim.pc.in ${CMAKE_CURRENT_BINARY_DIR}/bix_ipc_shim.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/bix_ipc_shim.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
