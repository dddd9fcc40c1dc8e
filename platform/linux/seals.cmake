# Seals: what reads them and bundle identifiers, the program without rights that it makes, and the
# library that carries this program.

# OpenSSL's archive, as for sha1.  Property lists are XML, or a binary form that is read here.
find_library(LUMEN_EXPAT libexpat.a REQUIRED)
lumen_library(lumen_seals
  linux/binaryPropertyList.cpp
  linux/bundleIdentifier.cpp
  linux/sealCheck.cpp
  linux/sealDigest.cpp
  linux/sealSignature.cpp
  linux/sealText.cpp
  linux/sealWalk.cpp
  linux/smallFile.cpp)
target_link_libraries(lumen_seals PUBLIC lumen_platform OpenSSL::Crypto ${LUMEN_EXPAT})

lumen_library(lumen_sealJail linux/sealJail.cpp linux/sealJailCalls.cpp)
if(LUMEN_SANITIZE OR LUMEN_COVERAGE)
  target_compile_definitions(lumen_sealJail PRIVATE LUMEN_INSTRUMENTED)
endif()

lumen_program(lumen-seal-verifier linux/sealVerifierMain.cpp)
target_link_libraries(lumen-seal-verifier PRIVATE lumen_seals lumen_sealJail)
if(NOT LUMEN_SANITIZE)
  target_sources(lumen-seal-verifier PRIVATE linux/sealVerifierRefusals.cpp)
  # Nobody sees its symbols.
  target_link_options(lumen-seal-verifier
                      PRIVATE -s -Wl,--wrap=dlopen,--wrap=getaddrinfo,--wrap=gethostbyname)
endif()

lumen_library(lumen_codeSignature
  linux/codeSignature.cpp
  linux/sealVerifier.cpp
  linux/sealVerifierImage.cpp)
set(_verifier ${CMAKE_CURRENT_BINARY_DIR}/lumen-seal-verifier)
set_source_files_properties(
  linux/sealVerifierImage.cpp PROPERTIES COMPILE_DEFINITIONS LUMEN_SEAL_VERIFIER="${_verifier}"
                                         OBJECT_DEPENDS ${_verifier})
add_dependencies(lumen_codeSignature lumen-seal-verifier)
target_link_libraries(lumen_codeSignature PUBLIC lumen_platform)
