# The sample-recording generator lives with the tools; build it for the tests
# also when the tools are switched off.
if(NOT TARGET vyra_sample)
  add_subdirectory(${PROJECT_SOURCE_DIR}/tools/sample ${CMAKE_BINARY_DIR}/tools-sample-for-tests)
endif()
target_link_libraries(vyra_tests PRIVATE vyra_sample)

# Pinned results of the regression suite.
target_compile_definitions(vyra_tests PRIVATE VYRA_REGRESSION_DIR="${CMAKE_CURRENT_SOURCE_DIR}/regression")
