# Run with cmake -P. MODE=clear empties DIR; MODE=check prints every sanitizer
# report in DIR (one file per reporting process, from any test, the service
# and lumora-tv included) and fails when there is one.
if(MODE STREQUAL "clear")
  file(REMOVE_RECURSE "${DIR}")
  file(MAKE_DIRECTORY "${DIR}")
  return()
endif()
file(GLOB _reports "${DIR}/*")
if(NOT _reports)
  message(STATUS "no sanitizer reports in ${DIR}")
  return()
endif()
list(LENGTH _reports _count)
foreach(_report IN LISTS _reports)
  file(READ "${_report}" _text)
  message("==== ${_report}\n${_text}")
endforeach()
message(FATAL_ERROR "${_count} sanitizer report(s) in ${DIR}")
