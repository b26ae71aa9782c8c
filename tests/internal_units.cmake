# Internal units of the library tested directly. The library hides their
# symbols, so this binary links the library's object files themselves
# instead of libvyra.
add_executable(vyra_internal_tests
  ${CMAKE_CURRENT_LIST_DIR}/internal/detection_workspace_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/frame_store_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/object_prefetch_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/fixtures.cpp)
target_include_directories(vyra_internal_tests PRIVATE ${CMAKE_CURRENT_LIST_DIR})
target_compile_options(vyra_internal_tests PRIVATE -Wall -Wextra)
target_link_libraries(vyra_internal_tests PRIVATE vyra_objects GTest::gtest GTest::gtest_main)
gtest_discover_tests(vyra_internal_tests
  WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
  DISCOVERY_TIMEOUT 60
  PROPERTIES TIMEOUT 300)
