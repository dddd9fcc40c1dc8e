# How every target of the project is compiled and linked.
#
#   lumen_library(NAME SOURCES...)   a static library of product code
#   lumen_program(NAME SOURCES...)   a product executable: no C++ run-time library, hardened
#   lumen_tool(NAME SOURCES...)      tests, benchmarks, tools: the whole C++ library may be used

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(APPLE)
  set(LUMEN_HOST darwin)
  set(LUMEN_XPC ON)
else()
  set(LUMEN_HOST linux)
  # For code in which a jump through the procedure linkage table costs measurable time.
  set(LUMEN_DIRECT_CALLS -fno-plt)
endif()

# Shipped programs contain no path of the build machine, so builds from two folders are identical.
add_compile_options($<$<CONFIG:Release>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>)

# For this project's code only: programs that link its libraries keep their own warnings.
add_library(lumen_warnings INTERFACE)
target_compile_options(lumen_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
                                                $<$<BOOL:${LUMEN_WERROR}>:-Werror>)

# What every target that links the project's libraries needs.
add_library(lumen_common INTERFACE)
target_include_directories(lumen_common INTERFACE ${PROJECT_SOURCE_DIR})
if(NOT APPLE)
  # Without it, glibc does not declare close_range, ppoll and the like.
  target_compile_definitions(lumen_common INTERFACE _GNU_SOURCE)
endif()
if(LUMEN_SANITIZE)
  target_compile_options(lumen_common INTERFACE -fsanitize=${LUMEN_SANITIZE} -fno-sanitize-recover=all
                                                -fno-omit-frame-pointer)
  target_link_options(lumen_common INTERFACE -fsanitize=${LUMEN_SANITIZE})
endif()

if(LUMEN_COVERAGE)
  # %c: each process counts in a mapped file, so that processes which end by _exit or a signal, or exec,
  # are counted, too, and need no environment to find the file.  %m: one file for each program.  Atomic:
  # many counts are differences of others, and a lost increment could make a line look reached, or not.
  set(_profiles ${PROJECT_BINARY_DIR}/profiles)
  target_compile_options(lumen_common INTERFACE -fprofile-instr-generate=${_profiles}/%c%m.profraw
                                                -fcoverage-mapping -fprofile-update=atomic
                                                "SHELL:-mllvm -runtime-counter-relocation")
  target_link_options(lumen_common INTERFACE -fprofile-instr-generate)
endif()

if(LUMEN_FUZZ)
  # Instruments everything that the fuzz targets may reach.
  target_compile_options(lumen_common INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(lumen_common INTERFACE -fsanitize=fuzzer-no-link)
endif()

# Product code: no exceptions, no RTTI; unused sections are dropped by the linker.  All symbols are hidden,
# since macOS's loader would replace exported inline functions and variables by those of other libraries.
add_library(lumen_product INTERFACE)
target_link_libraries(lumen_product INTERFACE lumen_warnings lumen_common)
target_compile_options(lumen_product INTERFACE -fno-exceptions -fno-rtti -fstack-protector-strong
                                               -ffunction-sections -fdata-sections
                                               -fvisibility=hidden -fvisibility-inlines-hidden)
if(NOT LUMEN_SANITIZE)
  target_compile_options(lumen_product INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                                                 $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()

function(lumen_library name)
  add_library(${name} STATIC ${ARGN})
  target_link_libraries(${name} PRIVATE lumen_product)
  target_link_libraries(${name} INTERFACE lumen_common)
endfunction()

# The product's programs are linked by the C driver, and CMake is kept from adding the C++ run-time
# library: anything that needs libstdc++ or libc++ is an undefined symbol at link time.
#
# On Linux they are static position-independent executables: a set-user-ID program is safer without the
# dynamic loader and its environment, and starts faster.  Sanitizers need the loader.  With coverage
# counters, or without optimisation, the compiler cannot prove that std::string_view never throws: then
# the C++ driver links.
function(lumen_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE lumen_product)
  if(APPLE)
    target_link_options(${name} PRIVATE -Wl,-dead_strip -Wl,-dead_strip_dylibs)
    return()
  endif()
  target_link_options(${name} PRIVATE -Wl,--gc-sections -Wl,-z,relro -Wl,-z,now
                                      -Wl,-z,noexecstack)
  if(LUMEN_SANITIZE)
    target_link_options(${name} PRIVATE -pie)
    return()
  endif()
  target_link_options(${name} PRIVATE -static-pie)
  if(NOT LUMEN_COVERAGE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    set_target_properties(${name} PROPERTIES LINKER_LANGUAGE C)
  endif()
endfunction()

if(NOT APPLE AND NOT LUMEN_SANITIZE AND NOT LUMEN_COVERAGE)
  # See lumen_program.  Tests and tools are linked by the C++ driver, which adds its own library.
  set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")
  # The C driver does not add libm either; on macOS it is part of libSystem.
  set(CMAKE_C_STANDARD_LIBRARIES "-lm")
endif()

# GCC 12 warns of overlapping copies in std::string's operator+ where there are none (its bug 105651).
add_library(lumen_hosted INTERFACE)
target_link_libraries(lumen_hosted INTERFACE lumen_warnings lumen_common)
target_compile_options(lumen_hosted INTERFACE
                       $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)

function(lumen_tool name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE lumen_hosted)
endfunction()
