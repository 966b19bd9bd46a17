# orx_add_library(NAME
#   SOURCES ... HEADERS ... [PUBLIC libs] [PRIVATE libs])
#
# Makes the library target NAME with its alias orx::NAME, a generated header <NAME_export.h>, hidden visibility, automoc,
# an installed header set and a place in the installed CMake package. Sources and headers are given relative to src/.
include(GenerateExportHeader)
include(CMakePackageConfigHelpers)

function(orx_add_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;HEADERS;PUBLIC;PRIVATE" ${ARGN})
  list(TRANSFORM arg_SOURCES PREPEND src/)
  list(TRANSFORM arg_HEADERS PREPEND src/)
  add_library(${name} SHARED ${arg_SOURCES})
  add_library(orx::${name} ALIAS ${name})
  string(TOUPPER ${name} upper)
  generate_export_header(${name}
    EXPORT_MACRO_NAME ${upper}_EXPORT
    EXPORT_FILE_NAME ${CMAKE_CURRENT_BINARY_DIR}/include/${name}_export.h)
  target_sources(${name} PUBLIC
    FILE_SET HEADERS
    BASE_DIRS src ${CMAKE_CURRENT_BINARY_DIR}/include
    FILES ${arg_HEADERS} ${CMAKE_CURRENT_BINARY_DIR}/include/${name}_export.h)
  set_target_properties(${name} PROPERTIES
    AUTOMOC ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_link_libraries(${name} PUBLIC ${arg_PUBLIC} PRIVATE orx_compile_options ${arg_PRIVATE})
  install(TARGETS ${name} EXPORT OrxHalvaneTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orx/${name})
endfunction()

# orx_add_executable(NAME SOURCES ... [LIBS ...]): a program of this project, installed into bin.
function(orx_add_executable name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE orx_compile_options ${arg_LIBS})
  install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()

# orx_add_test(NAME SOURCES ... [LIBS ...] [TIMEOUT seconds] [LABELS ...] [FIXTURES ...] [WITHOUT_QT]): one GoogleTest program. Every case of it
# is a test of its own for ctest, with a watchdog. Programs that use Qt get a main with a QCoreApplication.
# The label "threads" is for tests of what has threads: ./run test runs them under the thread sanitizer too, and the target
# orx_threads_tests builds them.
function(orx_add_test name)
  if(NOT ORX_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(arg "WITHOUT_QT" "TIMEOUT" "SOURCES;LIBS;LABELS;FIXTURES" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 600) # for a hang, not for a slow machine
  endif()
  add_executable(${name} ${arg_SOURCES})
  set_target_properties(${name} PROPERTIES AUTOMOC ON RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  if(arg_WITHOUT_QT)
    target_link_libraries(${name} PRIVATE GTest::gtest_main)
  else()
    target_link_libraries(${name} PRIVATE orx_qt_test_main Qt6::Core GTest::gtest)
    if(ORX_SANITIZE MATCHES "thread")
      target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/tsan_clone.cpp)
    endif()
  endif()
  target_link_libraries(${name} PRIVATE orx_compile_options GTest::gmock ${arg_LIBS})
  if("threads" IN_LIST arg_LABELS)
    add_dependencies(orx_threads_tests ${name})
  endif()
  # gtest_discover_tests takes lists of values apart and would keep the first label only: several labels are one of several
  # words, of which ctest -L finds each.
  list(JOIN arg_LABELS " " labels)
  set(fixtures)
  if(arg_FIXTURES)
    set(fixtures FIXTURES_REQUIRED "${arg_FIXTURES}")
  endif()
  gtest_discover_tests(${name}
    TEST_PREFIX ${name}/
    DISCOVERY_TIMEOUT 60
    DISCOVERY_MODE PRE_TEST
    NO_PRETTY_VALUES # they are bytes, addresses among them: names would differ from run to run
    PROPERTIES TIMEOUT ${arg_TIMEOUT} ${fixtures} LABELS "${labels}") # which may be empty: last
endfunction()

# Writes the CMake package, so that another project finds the installed libraries with find_package(OrxHalvane).
function(orx_install_package)
  set(destination ${CMAKE_INSTALL_LIBDIR}/cmake/OrxHalvane)
  install(EXPORT OrxHalvaneTargets NAMESPACE orx:: DESTINATION ${destination})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/OrxHalvaneConfig.cmake.in
    ${PROJECT_BINARY_DIR}/OrxHalvaneConfig.cmake INSTALL_DESTINATION ${destination})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/OrxHalvaneConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/OrxHalvaneConfig.cmake ${PROJECT_BINARY_DIR}/OrxHalvaneConfigVersion.cmake
    DESTINATION ${destination})
endfunction()
