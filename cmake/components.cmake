# A component is a folder. Its sources go into the library that it belongs to; every NAME_test.cpp beside
# them goes into one test program of the component.

# obs_component_sources(OUT FOLDER...): the sources of the folders, tests left out.
function(obs_component_sources out)
  set(found "")
  foreach(folder ${ARGN})
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${folder}/*.cpp")
    list(FILTER sources EXCLUDE REGEX "_test\\.cpp$")
    list(FILTER sources EXCLUDE REGEX "/codec_lzop/")
    list(APPEND found ${sources})
  endforeach()
  set(${out} ${found} PARENT_SCOPE)
endfunction()

# obs_component_tests(NAME FOLDER LIBRARY...): the component's test program, or nothing where it has no tests.
function(obs_component_tests name folder)
  if(NOT OBS_TESTS)
    return()
  endif()
  file(GLOB_RECURSE tests CONFIGURE_DEPENDS "${folder}/*_test.cpp")
  if(NOT tests)
    return()
  endif()
  add_executable(${name}_test ${tests})
  if(CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
    # What is tested is as fast as it is delivered; the tests' own code compiles in half the time like this.
    target_compile_options(${name}_test PRIVATE -O0)
  endif()
  target_link_libraries(${name}_test PRIVATE ${ARGN} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name}_test TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 120
    PROPERTIES TIMEOUT ${OBS_UNIT_TEST_TIMEOUT})
endfunction()
