# Builds a small project against the installed package.
set(consumer_flags "")
if(ORX_SANITIZE)
  set(consumer_flags "-fsanitize=${ORX_SANITIZE}")
endif()
add_test(NAME consumer/builds_against_the_installed_package
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/consumer/run.sh ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/consumer ${consumer_flags})
set_tests_properties(consumer/builds_against_the_installed_package PROPERTIES TIMEOUT 300 LABELS repository)
