# What every target of the project has in common, and the functions that make targets.

find_package(Threads REQUIRED)

add_library(rl_options INTERFACE)
target_compile_options(rl_options INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Woverloaded-virtual -Wimplicit-fallthrough -Wundef -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # g++ 12 sees overlapping copies in "text" + std::string, where there are none.
  target_compile_options(rl_options INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(rl_options INTERFACE -Wthread-safety)
endif()
if(RL_UNITY)
  # Between one source and the next these mean nothing; within one the other builds look for them.
  target_compile_options(rl_options INTERFACE -Wno-shadow)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(rl_options INTERFACE -Wno-subobject-linkage)
  endif()
endif()
if(RL_SANITIZE)
  target_compile_options(rl_options INTERFACE -fsanitize=${RL_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  target_link_options(rl_options INTERFACE -fsanitize=${RL_SANITIZE})
  # In test programs nobody looks for undefined behaviour, but in all that they test: that is a third
  # of what compiling them takes.
  target_compile_options(rl_options INTERFACE
    $<$<BOOL:$<TARGET_PROPERTY:RL_IS_TEST>>:-fno-sanitize=undefined>)
endif()

# The contracts, which are headers alone.
add_library(rl_contracts INTERFACE)
set_target_properties(rl_contracts PROPERTIES EXPORT_NAME contracts)
target_include_directories(rl_contracts INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/region-locator>)
target_compile_features(rl_contracts INTERFACE cxx_std_20)
# Our warnings are our own: a program that embeds the component builds with its own options.
target_link_libraries(rl_contracts INTERFACE $<BUILD_INTERFACE:rl_options> Threads::Threads)

# rl_compile_together(NAME): with RL_UNITY several sources of a target are compiled as one file.
# Standard headers and templates are then read and compiled once for all of them; after an edit more
# is compiled than without. What is local to one file must then differ from what is local to the
# others; where it does not, the file is named to rl_compile_apart() or rl_compile_alone(). To be
# called when the target has all its sources.
function(rl_compile_together NAME)
  if(NOT RL_UNITY)
    return()
  endif()
  # A source that is included is what clang-tidy warns of elsewhere.
  set_target_properties(${NAME} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP
    UNITY_BUILD_CODE_BEFORE_INCLUDE "// NOLINTNEXTLINE(bugprone-suspicious-include)")
  get_target_property(sources ${NAME} SOURCES)
  set(count 0)
  foreach(source IN LISTS sources)
    get_property(group SOURCE ${source} PROPERTY UNITY_GROUP)
    get_property(alone SOURCE ${source} PROPERTY SKIP_UNITY_BUILD_INCLUSION)
    if(NOT group AND NOT alone)
      math(EXPR batch "${count} / 8")
      math(EXPR count "${count} + 1")
      set_property(SOURCE ${source} PROPERTY UNITY_GROUP ${batch})
    endif()
  endforeach()
endfunction()

# rl_compile_apart(GROUP SOURCES...): these, of the current folder, are compiled together with each
# other, but not with others.
function(rl_compile_apart GROUP)
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  set_property(SOURCE ${ARGN} PROPERTY UNITY_GROUP ${GROUP})
endfunction()

# rl_compile_alone(SOURCES...): these, of the current folder, are never compiled together with
# others.
function(rl_compile_alone)
  set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

# rl_library(NAME): a static library of all sources below the current folder.
function(rl_library NAME)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${NAME} STATIC ${sources})
  target_link_libraries(${NAME} PUBLIC rl_contracts)
  rl_compile_together(${NAME})
endfunction()

# rl_compile_quickly(NAME): for code whose own speed matters to nobody: optimising it, or watching
# it the faster way, would cost more than it saves.
function(rl_compile_quickly NAME)
  if(RL_SANITIZE)
    target_compile_options(${NAME} PRIVATE -O0)
  elseif(CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
    target_compile_options(${NAME} PRIVATE -O1)
  endif()
endfunction()

# rl_tests_of_one_thread(SOURCES...): test files, of the current folder, that ThreadSanitizer has
# nothing to say of; a build for it leaves them out.
function(rl_tests_of_one_thread)
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  foreach(source IN LISTS ARGN)
    if(NOT EXISTS ${source})
      message(FATAL_ERROR "no such test file: ${source}")
    endif()
  endforeach()
  set_property(GLOBAL APPEND PROPERTY RL_TESTS_OF_ONE_THREAD ${ARGN})
endfunction()

# rl_tests(NAME FOLDER LIBRARIES...): one test program of all *Test.cpp right in that folder of
# tests/, each of its cases registered with ctest. Every test file belongs to a program: the tests'
# own CMakeLists.txt fails the configure step over one that does not.
function(rl_tests NAME FOLDER)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${FOLDER}/*Test.cpp)
  set_property(GLOBAL APPEND PROPERTY RL_TEST_SOURCES ${sources})
  if(RL_SANITIZE MATCHES "thread")
    get_property(left_out GLOBAL PROPERTY RL_TESTS_OF_ONE_THREAD)
    list(REMOVE_ITEM sources ${left_out})
  endif()
  if(NOT sources)
    return()
  endif()
  add_executable(${NAME} ${sources})
  target_link_libraries(${NAME} PRIVATE ${ARGN} rl_test_support GTest::gmock GTest::gtest_main)
  set_target_properties(${NAME} PROPERTIES RL_IS_TEST ON)
  # Every test reads this one by itself, so it hides no include that is missing. The first program
  # makes it for all: their options are the same.
  get_property(first GLOBAL PROPERTY RL_FIRST_TESTS)
  if(first)
    target_precompile_headers(${NAME} REUSE_FROM ${first})
  else()
    target_precompile_headers(${NAME} PRIVATE <gtest/gtest.h>)
    set_property(GLOBAL PROPERTY RL_FIRST_TESTS ${NAME})
  endif()
  rl_compile_quickly(${NAME})
  if(RL_UNITY)
    # A whole build is made to run each test once.
    target_compile_options(${NAME} PRIVATE -O0)
  endif()
  rl_compile_together(${NAME})
  gtest_discover_tests(${NAME} TEST_PREFIX "${FOLDER}/" PROPERTIES TIMEOUT 1500
    DISCOVERY_TIMEOUT 300)
endfunction()
