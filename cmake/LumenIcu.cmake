# lumen_icuApi: ICU's C interface, for the few targets that use it.
#
# On macOS it is ICU 4.4, whose symbols end in its version; the headers come from a later version.
add_library(lumen_icuApi INTERFACE)
target_compile_definitions(lumen_icuApi INTERFACE U_SHOW_CPLUSPLUS_API=0)
if(APPLE)
  target_compile_definitions(lumen_icuApi INTERFACE U_HAVE_LIB_SUFFIX=1 U_DISABLE_VERSION_SUFFIX=1
                                                    U_LIB_SUFFIX_C_NAME=_44)
  target_link_libraries(lumen_icuApi INTERFACE icuuc)
else()
  find_package(ICU REQUIRED COMPONENTS uc)
  target_link_libraries(lumen_icuApi INTERFACE ICU::uc)
endif()
