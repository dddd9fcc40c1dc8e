# Before files are packed: folders get mode 0755 whatever the packager's umask.  The variables of CPack
# and CMake for this have no effect on the folders above a destination that is an absolute path.
file(CHMOD_RECURSE ${CPACK_TEMPORARY_INSTALL_DIRECTORY} DIRECTORY_PERMISSIONS
     OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
