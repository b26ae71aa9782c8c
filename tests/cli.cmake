# End-to-end tests of the vyra tool: a gtest binary of its own that runs the
# built executable, whose path it reads from the environment variable
# VYRA_CLI (compiled in as a fallback).
if(TARGET vyra_cli)
  find_package(nlohmann_json REQUIRED)
  add_executable(vyra_cli_tests ${CMAKE_CURRENT_LIST_DIR}/cli/cli_test.cpp
                                ${CMAKE_CURRENT_LIST_DIR}/fixtures.cpp)
  target_include_directories(vyra_cli_tests PRIVATE ${CMAKE_CURRENT_LIST_DIR})
  target_compile_options(vyra_cli_tests PRIVATE -Wall -Wextra)
  target_compile_definitions(vyra_cli_tests PRIVATE VYRA_CLI_DEFAULT="$<TARGET_FILE:vyra_cli>")
  target_link_libraries(vyra_cli_tests PRIVATE vyra nlohmann_json::nlohmann_json GTest::gtest
                                               GTest::gtest_main)
  add_dependencies(vyra_cli_tests vyra_cli)
  gtest_discover_tests(vyra_cli_tests
    WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 300 ENVIRONMENT "VYRA_CLI=$<TARGET_FILE:vyra_cli>")
endif()
