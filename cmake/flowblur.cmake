# Helpers shared by the folders' CMakeLists.

# pl_add_part(NAME src...): one folder's sources, compiled once and gathered into `pl`.
# Each folder is its own object library so that a folder's tests can link just the
# folders they need.
function(pl_add_part name)
  add_library(pl_${name} OBJECT ${ARGN})
  target_include_directories(pl_${name} PUBLIC ${PROJECT_SOURCE_DIR})
  set_property(GLOBAL APPEND PROPERTY PL_PARTS pl_${name})
endfunction()

# pl_add_test(NAME SOURCES src... PARTS runtime image ...): one test executable per folder,
# linked against the host simulator so that forks run on real threads.
function(pl_add_test name)
  cmake_parse_arguments(T "" "" "SOURCES;PARTS;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  set(objs)
  foreach(part ${T_PARTS})
    list(APPEND objs pl_${part})
  endforeach()
  target_link_libraries(${name} PRIVATE ${objs} ${T_LIBS} sparkhost shell_frame
                        GTest::gtest GTest::gtest_main Threads::Threads m)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# pl_folder(NAME PARTS deps...): a folder whose sources are its *.cpp and whose tests are
# tests/*.cpp, linked with the folders it needs. New files need no CMake edit.
function(pl_folder name)
  cmake_parse_arguments(F "" "" "PARTS;LIBS" ${ARGN})
  file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT srcs)
    return()  # a folder still being started
  endif()
  pl_add_part(${name} ${srcs})
  file(GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tests/*.cpp)
  if(tests)
    pl_add_test(${name}_tests SOURCES ${tests} PARTS ${name} ${F_PARTS} LIBS ${F_LIBS})
  endif()
endfunction()
