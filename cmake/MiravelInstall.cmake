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

# The public headers, named one by one: what a client includes. The host's
# own inner declarations (DataModel/DmMediaInternal.h, DataModel/DmKeyTexts.h)
# stay in the source tree.
install(FILES
  ${PROJECT_SOURCE_DIR}/Include/Miravel/ClipThumbnailKey.h
  ${PROJECT_SOURCE_DIR}/Include/Miravel/IBsAudioWaveExtractWrapper.h
  ${PROJECT_SOURCE_DIR}/Include/Miravel/IBsClipThumbnailCallbacks.h
  ${PROJECT_SOURCE_DIR}/Include/Miravel/IBsClipThumbnailService.h
  ${PROJECT_SOURCE_DIR}/Include/Miravel/IBsThumbManager.h
  ${PROJECT_SOURCE_DIR}/Include/Miravel/IBsVideoFrameExtractWrapper.h
  ${PROJECT_SOURCE_DIR}/Include/Miravel/Miravel.h
  ${PROJECT_SOURCE_DIR}/Include/Miravel/MiravelExport.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Miravel)
set(_miravel_platform_headers
  ZorPlatformExport.h
  Adapter/Adapter.h
  BackgroundTaskManager/BackgroundTaskManager.h
  BsDataStructure/BsDataStructure.h
  DataModel/DataModel.h
  DataModel/DmCache.h
  DataModel/DmEdit.h
  DataModel/DmMedia.h
  DataModel/DmTime.h
  DataModel/DmTimeline.h
  DataModel/IDmBaseObj.h
  ListenerCenter/ListenerCenter.h
  ZorLogger/ZorLogger.h
  ZorUtils/ZorUtils.h)
foreach(_header IN LISTS _miravel_platform_headers)
  get_filename_component(_folder ${_header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/Include/Platform/${_header}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Miravel/Platform/${_folder})
endforeach()
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
