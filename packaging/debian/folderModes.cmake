# Before files are packed: folders have mode 0755 whatever the umask of who packs.  What CPack and CMake
# have for it leaves out those above a destination that is an absolute path.
file(CHMOD_RECURSE ${CPACK_TEMPORARY_INSTALL_DIRECTORY} DIRECTORY_PERMISSIONS
     OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
