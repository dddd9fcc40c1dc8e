# Where the product is installed.
#
#   LUMEN_BUNDLE   the client's application bundle, of which the opener is a part: it finds its root
#                  three levels above itself.  The rest of the bundle is the client's.

if(APPLE)
  # The prefix stays /usr/local: macOS has /usr for itself.
  set(LUMEN_BUNDLE "/Applications/Zephrin Lumen Client.app" CACHE PATH "The client's bundle")
else()
  if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
    # The man pages and tools come with a package.
    set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Where the tools and their pages go" FORCE)
  endif()
  set(LUMEN_BUNDLE "/opt/zephrin/Zephrin Lumen Client.app" CACHE PATH "The client's bundle")
endif()

include(GNUInstallDirs)

# Of folders, whatever the umask of who installs: read when the top of the tree is configured.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
                                                GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
