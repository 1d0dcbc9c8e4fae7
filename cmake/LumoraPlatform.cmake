# lumora::platform: everything the service links against to reach the TV
# platform. On the host that is tvhost (platform/host, added before this file
# is included); on the TV the SDK's libraries, found in the sysroot given by
# CMAKE_SYSROOT / CMAKE_FIND_ROOT_PATH.
add_library(lumora_platform INTERFACE)
add_library(lumora::platform ALIAS lumora_platform)

if(LUMORA_PLATFORM STREQUAL "host")
  # Only the platform's own interfaces: tvhost's test-control API is not part
  # of what the service may include (tvhost::control is for tests and tools).
  target_link_libraries(lumora_platform INTERFACE tvhost)
else()
  set(_lumora_tv_libs dlog vconf appcore-efl capi-network-connection capi-appfw-app-control
      capi-system-device notification-data was)
  foreach(_lib IN LISTS _lumora_tv_libs)
    string(MAKE_C_IDENTIFIER "LUMORA_TV_LIB_${_lib}" _var)
    find_library(${_var} NAMES ${_lib} REQUIRED)
    target_link_libraries(lumora_platform INTERFACE ${${_var}})
  endforeach()
endif()
