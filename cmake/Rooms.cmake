# quillbox_room(<name> [DEPS <targets>...])
# One static library per room: qb_<name> built from every .cpp in the folder
# except files ending in _main.cpp (those are programs). The folder is the
# include root of the room, so other rooms write #include "diag/trace.h".
function(quillbox_room name)
  cmake_parse_arguments(ROOM "" "" "DEPS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "_main\\.cpp$")
  set(target qb_${name})
  if(NOT sources)
    # A room without sources yet still gives a library others can link.
    set(sources ${CMAKE_CURRENT_BINARY_DIR}/empty_room.cpp)
    file(WRITE ${sources} "")
  endif()
  add_library(${target} STATIC ${sources})
  target_include_directories(${target} PUBLIC ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${target} PUBLIC ${ROOM_DEPS} Threads::Threads)
endfunction()

# quillbox_program(<name> <source> [DEPS <targets>...])
function(quillbox_program name source)
  cmake_parse_arguments(PROG "" "" "DEPS" ${ARGN})
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE ${PROG_DEPS})
endfunction()

# quillbox_tests(<room> [DEPS <targets>...] [ENVIRONMENT <NAME=value>...])
# Every .cpp under tests/<room> becomes one GoogleTest program test_<room>.
# Its tests run with the build's program folder and source folder in the
# environment, plus the ENVIRONMENT given.
function(quillbox_tests name)
  cmake_parse_arguments(T "" "" "DEPS;ENVIRONMENT" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "_main\\.cpp$")
  if(NOT sources)
    return()
  endif()
  set(target test_${name})
  add_executable(${target} ${sources})
  target_link_libraries(${target} PRIVATE ${T_DEPS} qb_test_support GTest::gtest GTest::gmock GTest::gtest_main)
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${target}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 300 LABELS ${name}
    TEST_LIST ${target}_TESTS)
  # gtest_discover_tests flattens its PROPERTIES, so a list value (several
  # variables) would lose all but its first element: the environment is set
  # by a file of our own that CTest reads after the discovered tests.
  set(environment "QUILLBOX_BUILD_BIN=${CMAKE_BINARY_DIR}/bin" "QUILLBOX_SOURCE_DIR=${CMAKE_SOURCE_DIR}" ${T_ENVIRONMENT})
  set(file ${CMAKE_CURRENT_BINARY_DIR}/${target}_environment.cmake)
  file(WRITE ${file} "if(${target}_TESTS)\n"
    "  set_tests_properties(\${${target}_TESTS} PROPERTIES ENVIRONMENT [==[${environment}]==])\n"
    "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${file})
endfunction()
