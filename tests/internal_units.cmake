# Internal units of the library tested directly. The library hides them, so
# their sources are compiled into this binary of their own (VyraImage.cpp for
# the hidden ImageCacheAccess the prefetcher uses; its exported Image members
# are the same code as the library's).
add_executable(vyra_internal_tests
  ${CMAKE_CURRENT_LIST_DIR}/internal/detection_workspace_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/frame_store_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/internal/object_prefetch_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/fixtures.cpp
  ${PROJECT_SOURCE_DIR}/src/ObjectDetection.cpp
  ${PROJECT_SOURCE_DIR}/src/FrameStore.cpp
  ${PROJECT_SOURCE_DIR}/src/ObjectPrefetch.cpp
  ${PROJECT_SOURCE_DIR}/src/VyraImage.cpp
  ${PROJECT_SOURCE_DIR}/src/LargeFrameAllocator.cpp)
target_include_directories(vyra_internal_tests PRIVATE ${PROJECT_SOURCE_DIR}/src ${CMAKE_CURRENT_LIST_DIR})
target_compile_options(vyra_internal_tests PRIVATE -Wall -Wextra)
target_link_libraries(vyra_internal_tests PRIVATE vyra GTest::gtest GTest::gtest_main)
gtest_discover_tests(vyra_internal_tests
  WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
  DISCOVERY_TIMEOUT 60
  PROPERTIES TIMEOUT 300)
