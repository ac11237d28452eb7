# Installs headers, libraries and what find_package(kep) and pkg-config need.

include(CMakePackageConfigHelpers)

install(TARGETS ${kep_libraries} EXPORT kepTargets)
install(DIRECTORY include/kep DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

set(kep_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kep)
install(EXPORT kepTargets NAMESPACE kep:: DESTINATION ${kep_cmake_dir})
configure_package_config_file(cmake/kepConfig.cmake.in kepConfig.cmake INSTALL_DESTINATION ${kep_cmake_dir})
write_basic_package_version_file(kepConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kepConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/kepConfigVersion.cmake
  DESTINATION ${kep_cmake_dir})

# Relative, so that the installed tree can be moved and `cmake --install --prefix` is heard; but for the folders that
# are given as absolute ones. As with CMake's own files, a tree whose libraries lie in such a one has a prefix that
# stays.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(kep_pc_prefix "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH kep_pc_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  set(kep_pc_prefix "\${pcfiledir}/${kep_pc_prefix}")
endif()
foreach(folder LIBDIR INCLUDEDIR)
  set(kep_pc_${folder} "${CMAKE_INSTALL_${folder}}")
  if(NOT IS_ABSOLUTE "${kep_pc_${folder}}")
    set(kep_pc_${folder} "\${prefix}/${kep_pc_${folder}}")
  endif()
endforeach()
foreach(package kep kep-platform-posix)
  configure_file(cmake/${package}.pc.in ${package}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
