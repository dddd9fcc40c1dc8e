# After a package is made: CPack lets the packager's umask into the outer archive.  Made again, it is the
# same whatever the umask.
foreach(_package ${CPACK_PACKAGE_FILES})
  set(_members debian-binary control.tar.gz data.tar.gz)
  set(_folder ${_package}.members)
  file(MAKE_DIRECTORY ${_folder})
  execute_process(COMMAND ar x ${_package} ${_members} WORKING_DIRECTORY ${_folder} COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE ${_package})
  execute_process(COMMAND ar rcD ${_package} ${_members} WORKING_DIRECTORY ${_folder} COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${_folder})
endforeach()
