# Installs headers, libraries and what find_package(kep) and pkg-config need.

include(CMakePackageConfigHelpers)

install(TARGETS kep kep_shared kep_platform_posix EXPORT kepTargets)
install(DIRECTORY include/kep DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

set(kep_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kep)
install(EXPORT kepTargets NAMESPACE kep:: DESTINATION ${kep_cmake_dir})
configure_package_config_file(cmake/kepConfig.cmake.in kepConfig.cmake INSTALL_DESTINATION ${kep_cmake_dir})
write_basic_package_version_file(kepConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kepConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/kepConfigVersion.cmake
  DESTINATION ${kep_cmake_dir})

# Relative, so that the installed tree can be moved and `cmake --install --prefix` is heard.
file(RELATIVE_PATH kep_prefix_from_pc "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
foreach(package kep kep-platform-posix)
  configure_file(cmake/${package}.pc.in ${package}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
