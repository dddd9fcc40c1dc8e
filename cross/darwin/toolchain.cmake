# toolchain.cmake -- Debian's clang 14 and ld64.lld 14 for macOS x86_64, 10.15 and later.
#
# Needs the folder that setup-sdk.sh makes.  Clear LIBRARY_PATH and CPATH first, as the preset `macos`
# does: clang would use them for the cross-build.

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 19)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

get_filename_component(_repository "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
set(DARWIN_SDK "${_repository}/build/darwin-sdk" CACHE PATH "The folder made by setup-sdk.sh")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES DARWIN_SDK)
if(NOT EXISTS "${DARWIN_SDK}/SDKSettings.json")
  message(FATAL_ERROR "No SDK in ${DARWIN_SDK}: make it with cross/darwin/setup-sdk.sh")
endif()

# The deployment target supplies the version of the triple.
set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_C_COMPILER_TARGET x86_64-apple-macos)
set(CMAKE_CXX_COMPILER_TARGET x86_64-apple-macos)
set(CMAKE_OSX_SYSROOT "${DARWIN_SDK}" CACHE PATH "" FORCE)
set(CMAKE_OSX_DEPLOYMENT_TARGET 10.15 CACHE STRING "" FORCE)
set(CMAKE_OSX_ARCHITECTURES x86_64 CACHE STRING "" FORCE)

find_program(CMAKE_AR NAMES llvm-ar-14 REQUIRED)
find_program(CMAKE_RANLIB NAMES llvm-ranlib-14 REQUIRED)
find_program(CMAKE_STRIP NAMES llvm-strip-14 REQUIRED)
find_program(CMAKE_INSTALL_NAME_TOOL NAMES llvm-install-name-tool-14 REQUIRED)

# The SDK's headers are newer than the oldest macOS supported: calling what 10.15 lacks is an error.
# Debian's clang would use the headers of libstdc++ by default.  No C++ run-time library is linked.
set(_availability "-Werror=unguarded-availability-new")
set(CMAKE_C_FLAGS_INIT "${_availability}")
set(CMAKE_CXX_FLAGS_INIT "-stdlib++-isystem ${DARWIN_SDK}/usr/include/c++/v1 ${_availability}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -nostdlib++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-fuse-ld=lld -nostdlib++")

set(CMAKE_FIND_ROOT_PATH "${DARWIN_SDK}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
