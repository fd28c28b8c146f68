# cmake --install: the library, the platform libraries, the public headers,
# the platform declarations and a CMake package (find_package(Miravel)).
include(CMakePackageConfigHelpers)

get_property(_miravel_platform_targets GLOBAL PROPERTY MIRAVEL_PLATFORM_TARGETS)
# Installed under the name of its build-tree alias, Miravel::PlatformHeaders.
set_target_properties(MiravelPlatformHeaders PROPERTIES EXPORT_NAME PlatformHeaders)
install(TARGETS Miravel MiravelPlatformHeaders ${_miravel_platform_targets}
  EXPORT MiravelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/Include/Miravel/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Miravel
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/Include/Platform/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Miravel/Platform
  FILES_MATCHING PATTERN "*.h")
# The object model header, for hosts that implement Miravel-compatible objects.
install(FILES ${PROJECT_SOURCE_DIR}/Include/Common/ZorInternalComUtility.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Common)

install(EXPORT MiravelTargets
  NAMESPACE Miravel::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Miravel)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/MiravelConfig.cmake.in
  ${PROJECT_BINARY_DIR}/MiravelConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Miravel)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/MiravelConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/MiravelConfig.cmake
  ${PROJECT_BINARY_DIR}/MiravelConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Miravel)
