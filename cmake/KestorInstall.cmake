include(CMakePackageConfigHelpers)

install(TARGETS kestor EXPORT kestorTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/include/kestor.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(KESTOR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kestor)
install(EXPORT kestorTargets NAMESPACE kestor:: FILE kestorTargets.cmake
  DESTINATION ${KESTOR_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_SOURCE_DIR}/cmake/kestorConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kestorConfig.cmake INSTALL_DESTINATION ${KESTOR_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kestorConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestorConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/kestorConfigVersion.cmake DESTINATION ${KESTOR_CMAKE_DIR})

# The .pc file locates the prefix from its own place, so a relocated install still works.
file(RELATIVE_PATH KESTOR_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${CMAKE_CURRENT_SOURCE_DIR}/cmake/kestor.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/kestor.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestor.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
