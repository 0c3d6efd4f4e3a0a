add_compile_options(-Wall -Wextra -Werror -fno-gnu-unique)
# Log lines name a source by its path inside the project.
add_compile_options("-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  get_directory_property(_opts COMPILE_OPTIONS)
  list(REMOVE_ITEM _opts -fno-gnu-unique)
  set_directory_properties(PROPERTIES COMPILE_OPTIONS "${_opts}")
endif()
add_compile_definitions(_FILE_OFFSET_BITS=64)

# How long one test may take, in seconds; a sanitizer makes it several times slower.
set(OBS_UNIT_TEST_TIMEOUT 600)
set(OBS_SYSTEM_TEST_TIMEOUT 1500)
if(OBS_SANITIZE)
  set(OBS_UNIT_TEST_TIMEOUT 1800)
  set(OBS_SYSTEM_TEST_TIMEOUT 4500)
  add_compile_options("-fsanitize=${OBS_SANITIZE}" -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options("-fsanitize=${OBS_SANITIZE}")
endif()
