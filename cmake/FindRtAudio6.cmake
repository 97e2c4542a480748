# Defines QtTovelMixer::RtAudio6 from a packaged RtAudio 6: its CMake package where there is one,
# else pkg-config. Version 5 has another interface and is refused.

if(NOT TARGET QtTovelMixer::RtAudio6)
  add_library(QtTovelMixer::RtAudio6 INTERFACE IMPORTED GLOBAL)
  find_package(RtAudio 6 CONFIG QUIET)
  if(RtAudio_FOUND AND TARGET RtAudio::rtaudio)
    target_link_libraries(QtTovelMixer::RtAudio6 INTERFACE RtAudio::rtaudio)
  else()
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(RTAUDIO6 REQUIRED IMPORTED_TARGET GLOBAL rtaudio>=6)
    target_link_libraries(QtTovelMixer::RtAudio6 INTERFACE PkgConfig::RTAUDIO6)
  endif()
endif()
