# lumenConfig.cmake -- find_package(lumen) gives the target lumen::lumen.
if(NOT APPLE)
  include(CMakeFindDependencyMacro)
  find_dependency(OpenSSL COMPONENTS Crypto)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/lumenTargets.cmake)
