# Fills the exported version variables at configure time. A build from a
# tarball (no git) still configures: the values then say where they came from.
set(KORA_GIT_HASH "unknown: not built from a git checkout")
set(KORA_GIT_DESCRIBE "")
set(KORA_DATE_EPOCH 0)
find_package(Git QUIET)
if(GIT_FOUND AND EXISTS ${CMAKE_SOURCE_DIR}/.git)
  execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse HEAD
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} OUTPUT_VARIABLE gitHash
    RESULT_VARIABLE gitResult OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(gitResult EQUAL 0)
    set(KORA_GIT_HASH ${gitHash})
    execute_process(COMMAND ${GIT_EXECUTABLE} log -1 --format=%ct
      WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} OUTPUT_VARIABLE KORA_DATE_EPOCH
      OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    execute_process(COMMAND ${GIT_EXECUTABLE} describe --tags --always --dirty
      WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} OUTPUT_VARIABLE KORA_GIT_DESCRIBE
      OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  else()
    set(KORA_GIT_HASH "unknown: git checkout without commits")
  endif()
endif()
# A packager's SOURCE_DATE_EPOCH wins, so rebuilds are reproducible.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(KORA_DATE_EPOCH $ENV{SOURCE_DATE_EPOCH})
endif()
if(NOT KORA_DATE_EPOCH MATCHES "^[0-9]+$")
  set(KORA_DATE_EPOCH 0)
endif()
set(KORA_VERSION_TEXT ${PROJECT_VERSION})
if(KORA_GIT_DESCRIBE)
  set(KORA_VERSION_TEXT "${PROJECT_VERSION}+${KORA_GIT_DESCRIBE}")
elseif(NOT KORA_GIT_HASH MATCHES "^[0-9a-f]+$")
  set(KORA_VERSION_TEXT "${PROJECT_VERSION} (built outside git)")
endif()
set(KORA_VERSION_SOURCE ${CMAKE_BINARY_DIR}/generated/Version.cpp)
configure_file(${CMAKE_SOURCE_DIR}/lib/Core/Version.cpp.in ${KORA_VERSION_SOURCE} @ONLY)
