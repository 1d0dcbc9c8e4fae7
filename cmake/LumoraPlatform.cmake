# lumora::platform: everything the service links against to reach the TV
# platform. On the host that is tvhost (built here); on the TV the SDK's
# libraries, found in the sysroot given by CMAKE_SYSROOT / CMAKE_FIND_ROOT_PATH.
add_library(lumora_platform INTERFACE)
add_library(lumora::platform ALIAS lumora_platform)

if(LUMORA_PLATFORM STREQUAL "host")
  add_subdirectory(${PROJECT_SOURCE_DIR}/platform/host ${PROJECT_BINARY_DIR}/platform/host)
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
