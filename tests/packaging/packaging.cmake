# What the tests of installed trees and packages have in common.
cmake_minimum_required(VERSION 3.25)
unset(ENV{LD_LIBRARY_PATH})
unset(ENV{DESTDIR})

# Runs a command that must succeed, in the scratch directory; `output` is what it printed.
macro(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE exit_code OUTPUT_VARIABLE output ERROR_VARIABLE errors
                  WORKING_DIRECTORY ${BUILD_DIR}/tests/packaging)
  if(NOT exit_code EQUAL 0)
    message(FATAL_ERROR "${ARGN}\nended with ${exit_code}:\n${output}${errors}")
  endif()
endmacro()

function(expect text pattern)
  if(NOT text MATCHES "${pattern}")
    message(SEND_ERROR "expected ${pattern} in:\n${text}")
  endif()
endfunction()

function(expect_no text pattern where)
  if(text MATCHES "${pattern}")
    message(SEND_ERROR "${where} has ${CMAKE_MATCH_0}")
  endif()
endfunction()

function(expect_file path)
  if(NOT EXISTS "${path}")
    message(SEND_ERROR "${path} is missing")
  endif()
endfunction()
