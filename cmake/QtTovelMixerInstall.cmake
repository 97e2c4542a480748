# Installation: headers under include/qttovelmixer, the library, the CMake package, pkg-config.
include(CMakePackageConfigHelpers)

set(package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/QtTovelMixer")
if(QTTOVELMIXER_WITH_RTAUDIO AND QTTOVELMIXER_SYSTEM_RTAUDIO)
  set(needs_rtaudio ON)
  set(package_rtaudio "include(\"\${CMAKE_CURRENT_LIST_DIR}/FindRtAudio6.cmake\")")
  # It may live in a prefix of its own.
  set_target_properties(qttovelmixer PROPERTIES INSTALL_RPATH_USE_LINK_PATH ON)
else()
  set(needs_rtaudio OFF)
  set(package_rtaudio "")
endif()
install(TARGETS qttovelmixer EXPORT QtTovelMixerTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/qttovelmixer"
  FILE_SET umbrella DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/qttovelmixer")
install(EXPORT QtTovelMixerTargets NAMESPACE QtTovelMixer:: DESTINATION "${package_folder}")
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/QtTovelMixerConfig.cmake.in"
  "${CMAKE_CURRENT_BINARY_DIR}/QtTovelMixerConfig.cmake" INSTALL_DESTINATION "${package_folder}")
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/QtTovelMixerConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/QtTovelMixerConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/QtTovelMixerConfigVersion.cmake"
  DESTINATION "${package_folder}")
if(needs_rtaudio)
  install(FILES "${CMAKE_CURRENT_LIST_DIR}/FindRtAudio6.cmake" DESTINATION "${package_folder}")
endif()
# Relative, so that the installed tree may be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" OUTPUT_VARIABLE pc_prefix)
set(pc_rtaudio_requirement "")
set(pc_rtaudio_flag "")
if(needs_rtaudio)
  set(pc_rtaudio_requirement ", rtaudio >= 6")
endif()
foreach(definition IN LISTS rtaudio_public_definitions)
  string(APPEND pc_rtaudio_flag " -D${definition}")
endforeach()
configure_file("${CMAKE_CURRENT_LIST_DIR}/qttovelmixer.pc.in"
  "${CMAKE_CURRENT_BINARY_DIR}/qttovelmixer.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/qttovelmixer.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
