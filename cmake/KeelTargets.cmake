# Helpers shared by every folder's CMakeLists.txt.

# keel_area(<name> [DEPS <targets...>] [EXCLUDE <files...>])
# One area of the code: every *.cpp of the folder except tests becomes the
# static library <name>; every *_test.cpp becomes the test program
# <name>_test. Each test case is its own CTest test, so process-wide state
# (once-only flags, counters, singletons) starts fresh for every case.
#
# Test names carry two conventions: a suite whose name contains "Concurren"
# also runs under ThreadSanitizer, and one whose name contains "Slow" is left
# out of `make test` (run it by name with ctest -R).
function(keel_area name)
  cmake_parse_arguments(ARG "" "" "DEPS;EXCLUDE;TEST_DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  file(GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cpp)
  if(tests)
    list(REMOVE_ITEM sources ${tests})
  endif()
  foreach(excluded ${ARG_EXCLUDE})
    list(REMOVE_ITEM sources ${CMAKE_CURRENT_SOURCE_DIR}/${excluded})
  endforeach()
  if(sources)
    add_library(${name} STATIC ${sources})
    target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE ${ARG_DEPS})
  endif()
  if(tests)
    add_executable(${name}_test ${tests})
    target_link_libraries(${name}_test PRIVATE ${name} ${ARG_TEST_DEPS} keel_testsupport
                          GTest::gmock GTest::gtest_main)
    gtest_discover_tests(${name}_test
      PROPERTIES ENVIRONMENT "VTC_LOGGING_OUTPUT=STDOUT"
      DISCOVERY_TIMEOUT 60)
  endif()
endfunction()
