# GoogleTest is built from Debian's sources: there is no packaged build of it for these targets. It and the test programs
# are compiled as fast as can be: what is tested is not.
set(INSTALL_GTEST OFF)
set(gtest_force_shared_crt OFF)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
foreach(library IN ITEMS gtest gmock)
  target_compile_options(${library} PRIVATE -O0)
endforeach()

# talvik_test_program(NAME SOURCES...): a test program, or with STATIC or OBJECT before the sources a library for several.
function(talvik_test_program name)
  if(ARGV1 MATCHES "^(STATIC|OBJECT)$")
    add_library(${name} ${ARGN})
  else()
    add_executable(${name} ${ARGN})
  endif()
  target_compile_options(${name} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-O0>)
  target_link_libraries(${name} PUBLIC talvik_options GTest::gmock GTest::gtest)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/tests)
  talvik_precompile(${name} OF tests WITH <gmock/gmock.h> <gtest/gtest.h>)
endfunction()

# talvik_needs(TEST TARGET...): files without which the test cannot run, beside its own program. `./test.sh -R TEST` builds
# these and no others.
function(talvik_needs test)
  foreach(target IN LISTS ARGN)
    set_property(TEST ${test} APPEND PROPERTY REQUIRED_FILES $<TARGET_FILE:${target}>)
  endforeach()
endfunction()
