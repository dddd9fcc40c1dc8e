# How every target of the project is compiled and linked.
#
#   lumen_library(NAME SOURCES...)   one static library for one folder of product code
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
  # For code in which a jump through the procedure linkage table is felt.
  set(LUMEN_DIRECT_CALLS -fno-plt)
endif()

# No path of the machine that builds goes into what is shipped: builds from two folders are the same.
add_compile_options($<$<CONFIG:Release>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>)

# Of the code here, and nobody else's: what links a library of the project keeps its own warnings.
add_library(lumen_warnings INTERFACE)
target_compile_options(lumen_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
                                                $<$<BOOL:${LUMEN_WERROR}>:-Werror>)

# What the project's libraries ask of whoever links them.
add_library(lumen_common INTERFACE)
target_include_directories(lumen_common INTERFACE ${PROJECT_SOURCE_DIR})
if(NOT APPLE)
  # glibc declares close_range, ppoll and the like only for those who ask.
  target_compile_definitions(lumen_common INTERFACE _GNU_SOURCE)
endif()
if(LUMEN_SANITIZE)
  target_compile_options(lumen_common INTERFACE -fsanitize=${LUMEN_SANITIZE} -fno-sanitize-recover=all
                                                -fno-omit-frame-pointer)
  target_link_options(lumen_common INTERFACE -fsanitize=${LUMEN_SANITIZE})
endif()

if(LUMEN_COVERAGE)
  # %c: each process counts in a mapped file.  So what ends by _exit or a signal, or execs, counts
  # like the rest, and needs no environment to find the file.  %m: one file a program.  Atomic: many
  # counts are differences, and one step lost between processes would make a line reached, or not.
  set(_profiles ${PROJECT_BINARY_DIR}/profiles)
  target_compile_options(lumen_common INTERFACE -fprofile-instr-generate=${_profiles}/%c%m.profraw
                                                -fcoverage-mapping -fprofile-update=atomic
                                                "SHELL:-mllvm -runtime-counter-relocation")
  target_link_options(lumen_common INTERFACE -fprofile-instr-generate)
endif()

if(LUMEN_FUZZ)
  # What the fuzz targets run into is counted everywhere.
  target_compile_options(lumen_common INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(lumen_common INTERFACE -fsanitize=fuzzer-no-link)
endif()

# Product code: no exceptions, no RTTI; unused sections are dropped at link.  Everything is hidden: what
# macOS's loader sees of inline functions and variables it replaces by those of other libraries.
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

# The product's programs are linked by the C driver, and CMake is kept from adding the C++ run-time:
# whatever would need libstdc++ or libc++ becomes an undefined symbol at link time.
#
# On Linux they are static position-independent executables: a set-user-ID program is better off
# without the dynamic loader and its environment, and starts faster.  Sanitizers need the loader.
# Counters keep the compiler from proving that std::string_view has no reason to throw, and without
# optimisation it proves nothing: then the C++ driver links.
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
  # See lumen_program.  Tests and tools are linked by the C++ driver, which adds its library itself.
  set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")
  # The C driver leaves out the mathematical library, too; macOS has it in libSystem.
  set(CMAKE_C_STANDARD_LIBRARIES "-lm")
endif()

# GCC 12 sees overlapping copies in std::string's operator+ where there are none (its bug 105651).
add_library(lumen_hosted INTERFACE)
target_link_libraries(lumen_hosted INTERFACE lumen_warnings lumen_common)
target_compile_options(lumen_hosted INTERFACE
                       $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)

function(lumen_tool name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE lumen_hosted)
endfunction()
