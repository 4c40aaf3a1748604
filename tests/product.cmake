# The bmsg tool as a process (every build); the demo runner and an outside
# project built against a staged install (native, unsanitized builds only:
# they run luajit and the host compiler).
bmsg_add_gtest(test_tool test_tool.cpp)
target_link_libraries(test_tool PRIVATE bmsg_picture)
target_compile_definitions(test_tool PRIVATE BMSG_TOOL="$<TARGET_FILE:bmsg_tool>")
bmsg_add_gtest(test_record test_record.cpp)
target_link_libraries(test_record PRIVATE bmsg_picture)
target_compile_definitions(test_record PRIVATE BMSG_TOOL="$<TARGET_FILE:bmsg_tool>")
if(NOT CMAKE_CROSSCOMPILING AND NOT BMSG_SANITIZE)
  add_test(NAME demo COMMAND ${PROJECT_SOURCE_DIR}/examples/demo/run.sh ${PROJECT_BINARY_DIR}
           ${CMAKE_CURRENT_BINARY_DIR}/demo-out 3)
  add_test(NAME install_consumer COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/install_test.sh
           ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_BINARY_DIR}/install-consumer)
  add_test(NAME device_package COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/device_test.sh
           ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR}/device-package)
  set_tests_properties(demo install_consumer device_package PROPERTIES TIMEOUT 300)
  set_tests_properties(device_package PROPERTIES SKIP_RETURN_CODE 77)
endif()
