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

# quillbox_tests(<room> [DEPS <targets>...])
# Every .cpp under tests/<room> becomes one GoogleTest program test_<room>.
function(quillbox_tests name)
  cmake_parse_arguments(T "" "" "DEPS" ${ARGN})
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
    ENVIRONMENT "QUILLBOX_BUILD_BIN=${CMAKE_BINARY_DIR}/bin;QUILLBOX_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
endfunction()
