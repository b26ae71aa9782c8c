# A host written in C against vyra.h (compiled as C99, no C++): the quiet
# measurement interface answers a missing recording with its status.
add_executable(vyra_c_measure_host ${CMAKE_CURRENT_LIST_DIR}/c/measure_host.c)
set_target_properties(vyra_c_measure_host PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
target_compile_options(vyra_c_measure_host PRIVATE -Wall -Wextra -pedantic)
target_link_libraries(vyra_c_measure_host PRIVATE vyra m)
add_test(NAME vyra_c_measure_host COMMAND vyra_c_measure_host)
