# What `make install` puts down: the library, its public headers (by layer, see korvo_layer), krv, and what lets
# pkg-config and CMake find them.

include(CMakePackageConfigHelpers)

install(TARGETS korvo EXPORT korvoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/api/krv.h ${PROJECT_BINARY_DIR}/include/korvo_export.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/korvo COMPONENT development)
install(TARGETS krv RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/korvo)
install(EXPORT korvoTargets NAMESPACE korvo:: DESTINATION ${package_folder} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/korvoConfig.cmake.in
  ${PROJECT_BINARY_DIR}/korvoConfig.cmake INSTALL_DESTINATION ${package_folder})
# Until 1.0 a minor version may break what the one before it offered.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/korvoConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/korvoConfig.cmake ${PROJECT_BINARY_DIR}/korvoConfigVersion.cmake
  DESTINATION ${package_folder} COMPONENT development)

# Relative to the file itself, so that `cmake --install --prefix` elsewhere, or a moved tree, still fits.
file(RELATIVE_PATH KORVO_PC_TO_PREFIX
  ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KORVO_PC_TO_PREFIX "${KORVO_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/korvo.pc.in ${PROJECT_BINARY_DIR}/korvo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/korvo.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
