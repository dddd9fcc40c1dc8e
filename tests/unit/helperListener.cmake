# The helper listener against a stand-in for XPC: its events with any compiler, the rest with one
# that has Blocks (clang, so the presets asan and tsan; the run-time is Debian's libblocksruntime-dev).
# Where there is none, a test of that name is there all the same, and says that it was skipped.
include(CheckCXXSourceCompiles)

lumen_unit_test(helperListenerEvents_test lumen_string)
target_sources(helperListenerEvents_test
               PRIVATE ${PROJECT_SOURCE_DIR}/opener/helperListenerEvents.cpp
                       ${PROJECT_SOURCE_DIR}/tests/support/darwin/xpc.cpp)
target_include_directories(helperListenerEvents_test
                           PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/darwin)

set(CMAKE_REQUIRED_FLAGS -fblocks)
set(CMAKE_REQUIRED_LIBRARIES BlocksRuntime)
check_cxx_source_compiles("#include <Block.h>
  int main() { Block_release(Block_copy(^{})); return 0; }" LUMEN_BLOCKS)
unset(CMAKE_REQUIRED_FLAGS)
unset(CMAKE_REQUIRED_LIBRARIES)

if(LUMEN_BLOCKS)
  find_package(Threads REQUIRED)
  lumen_unit_test(helperListener_test lumen_string BlocksRuntime Threads::Threads)
  target_sources(helperListener_test
                 PRIVATE ${PROJECT_SOURCE_DIR}/opener/helperListener.cpp
                         ${PROJECT_SOURCE_DIR}/opener/helperListenerEvents.cpp
                         ${PROJECT_SOURCE_DIR}/tests/support/darwin/xpc.cpp)
  target_compile_options(helperListener_test PRIVATE -fblocks)
  target_include_directories(helperListener_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/darwin)
else()
  add_custom_target(helperListener_test)
  set(_reason "helperListener_test: Blocks are not to be had from this compiler")
  add_test(NAME helperListener_test.skipped COMMAND ${CMAKE_COMMAND} -E echo ${_reason})
  set_tests_properties(helperListener_test.skipped PROPERTIES SKIP_REGULAR_EXPRESSION "^helperListener_test: ")
endif()
