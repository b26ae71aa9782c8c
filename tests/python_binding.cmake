# The Python binding's unittest suite, run against the built library. The
# suite renders its recordings with the built `vyra sample` tool. Skipped in
# sanitizer builds: a Python interpreter cannot load an ASan library.
if(NOT VYRA_SANITIZE AND TARGET vyra_cli)
  find_package(Python3 COMPONENTS Interpreter)
  if(Python3_Interpreter_FOUND)
    add_test(NAME python_binding
             COMMAND ${Python3_EXECUTABLE} -m unittest discover -v
                     -s ${PROJECT_SOURCE_DIR}/bindings/python/tests -t ${PROJECT_SOURCE_DIR}/bindings/python/tests)
    set_tests_properties(python_binding PROPERTIES
      TIMEOUT 300
      ENVIRONMENT "VYRA_LIBRARY=$<TARGET_FILE:vyra>;VYRA_CLI=$<TARGET_FILE:vyra_cli>;PYTHONPATH=${PROJECT_SOURCE_DIR}/bindings/python;PYTHONDONTWRITEBYTECODE=1")
  endif()
endif()
