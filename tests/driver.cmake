# Checks of the library entry from outside the C++ suite: the exported
# symbol, a C host built against the installed library, and a Python host.

# analyse() must be exported under its plain C name.
add_test(NAME vyra_exports_unmangled_analyse
         COMMAND sh -c "nm -D --defined-only \"$1\" | grep -Eq ' T analyse$'"
                 sh $<TARGET_FILE:vyra>)

# Hosts in other languages load the library into a process that does not
# start with the AddressSanitizer runtime; that needs LD_PRELOAD tricks, so
# these hosts only run against the plain build.
if(NOT VYRA_SANITIZE)
  # --- C host, compiled and linked against an installed copy of the library.
  set(VYRA_C_HOST_DIR ${CMAKE_CURRENT_BINARY_DIR}/c_host)
  set(VYRA_C_HOST_PREFIX ${VYRA_C_HOST_DIR}/prefix)
  set(VYRA_C_HOST_LIBDIR ${VYRA_C_HOST_PREFIX}/${CMAKE_INSTALL_LIBDIR})

  add_executable(vyra_reference_run c_host/reference_run.cpp fixtures.cpp)
  target_compile_options(vyra_reference_run PRIVATE -Wall -Wextra)
  target_include_directories(vyra_reference_run PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(vyra_reference_run PRIVATE vyra)

  add_test(NAME vyra_c_host_install
           COMMAND ${CMAKE_COMMAND} --install ${CMAKE_BINARY_DIR} --prefix ${VYRA_C_HOST_PREFIX})
  set_tests_properties(vyra_c_host_install PROPERTIES FIXTURES_SETUP vyra_installed)

  add_test(NAME vyra_c_host_build
           COMMAND sh -c "cc -std=c11 -Wall -Wextra -pedantic -Werror \"$1\" -o \"$2\" \
$(pkg-config --cflags --libs vyra) -Wl,-rpath,\"$3\""
                   sh ${CMAKE_CURRENT_SOURCE_DIR}/c_host/analyse_host.c
                   ${VYRA_C_HOST_DIR}/analyse_host ${VYRA_C_HOST_LIBDIR})
  set_tests_properties(vyra_c_host_build PROPERTIES
    FIXTURES_REQUIRED vyra_installed
    FIXTURES_SETUP vyra_c_host
    ENVIRONMENT "PKG_CONFIG_PATH=${VYRA_C_HOST_LIBDIR}/pkgconfig")

  add_test(NAME vyra_c_host_matches_cxx_driver
           COMMAND ${CMAKE_COMMAND} -DHOST=${VYRA_C_HOST_DIR}/analyse_host
                   -DREFERENCE=$<TARGET_FILE:vyra_reference_run>
                   -DWORK_DIR=${VYRA_C_HOST_DIR}/work
                   -P ${CMAKE_CURRENT_SOURCE_DIR}/c_host/compare_hosts.cmake)
  set_tests_properties(vyra_c_host_matches_cxx_driver PROPERTIES FIXTURES_REQUIRED vyra_c_host)

  # --- Python host through ctypes.
  find_package(Python3 COMPONENTS Interpreter)
  if(Python3_Interpreter_FOUND)
    add_test(NAME vyra_python_ctypes
             COMMAND ${Python3_EXECUTABLE} -B -m unittest discover -v
                     -s ${CMAKE_CURRENT_SOURCE_DIR}/python -p "test_*.py")
    set_tests_properties(vyra_python_ctypes PROPERTIES
      ENVIRONMENT "VYRA_LIBRARY=$<TARGET_FILE:vyra>")
  endif()
endif()
