# Installs a build tree into a fresh staging folder and compares the files
# there with a list kept in the repository.
#
#   cmake -DBUILD=<tree> -DSTAGE=<folder> -DLIST=<file> [-DCOMPONENT=<name>]
#         [-DRUN=<installed program> [-DRUN_WITH=<emulator>]] -P CheckInstall.cmake
#
# Without COMPONENT it is a plain `cmake --install`, what an image build runs.
# RUN names an installed program that must start from there (`RUN --help`),
# so that a library it needs and the install left out shows; RUN_WITH starts
# it (a cross build's emulator).
foreach(_var BUILD STAGE LIST)
  if(NOT ${_var})
    message(FATAL_ERROR "CheckInstall.cmake needs -D${_var}=...")
  endif()
endforeach()

file(REMOVE_RECURSE ${STAGE})
set(_component)
if(COMPONENT)
  set(_component --component ${COMPONENT})
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} ${_component} --prefix ${STAGE}
                RESULT_VARIABLE _rc OUTPUT_QUIET)
if(NOT _rc EQUAL 0)
  message(FATAL_ERROR "cmake --install ${BUILD} ${_component} failed (${_rc})")
endif()

file(GLOB_RECURSE _installed LIST_DIRECTORIES false RELATIVE ${STAGE} ${STAGE}/*)
file(STRINGS ${LIST} _kept REGEX "^[^#]")
list(SORT _installed)
list(SORT _kept)
set(_missing ${_kept})
list(REMOVE_ITEM _missing ${_installed})
set(_unexpected ${_installed})
list(REMOVE_ITEM _unexpected ${_kept})
if(_missing OR _unexpected)
  list(JOIN _missing "\n  " _m)
  list(JOIN _unexpected "\n  " _u)
  message(FATAL_ERROR "the install of ${BUILD} ${_component} differs from ${LIST}:\n"
          "not installed:\n  ${_m}\ninstalled but not listed:\n  ${_u}\n"
          "Fix the install() calls, or the list when the set of files changed on purpose.")
endif()
list(LENGTH _installed _count)
message(STATUS "${_count} files, as ${LIST} lists")

if(RUN)
  execute_process(COMMAND ${RUN_WITH} ${STAGE}/${RUN} --help RESULT_VARIABLE _rc OUTPUT_QUIET ERROR_VARIABLE _err)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "the installed ${RUN} does not start (${_rc}): ${_err}")
  endif()
endif()
