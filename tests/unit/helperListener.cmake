# The helper listener against a stand-in for XPC: its events with any compiler, the rest with one that
# has Blocks (clang, so not in dev and bench; Debian's libblocksruntime-dev has the run-time library).
include(CheckCXXSourceCompiles)

lumen_unit_test(helperListener_test lumen_string)
target_sources(helperListener_test
               PRIVATE ${PROJECT_SOURCE_DIR}/opener/helperListenerEvents.cpp)
target_include_directories(helperListener_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/darwin)

set(CMAKE_REQUIRED_FLAGS -fblocks)
set(CMAKE_REQUIRED_LIBRARIES BlocksRuntime)
check_cxx_source_compiles("#include <Block.h>
  int main() { Block_release(Block_copy(^{})); return 0; }" LUMEN_BLOCKS)
unset(CMAKE_REQUIRED_FLAGS)
unset(CMAKE_REQUIRED_LIBRARIES)

if(LUMEN_BLOCKS)
  find_package(Threads REQUIRED)
  target_sources(helperListener_test PRIVATE ${PROJECT_SOURCE_DIR}/opener/helperListener.cpp)
  target_compile_options(helperListener_test PRIVATE -fblocks)
  target_link_libraries(helperListener_test PRIVATE BlocksRuntime Threads::Threads)
endif()
