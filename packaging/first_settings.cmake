# What the first installation makes and none replaces. The key file's inode is the key of the shared block, so a new one
# would cut the tools off from a daemon that runs; the settings file belongs to the administrator.
set(key_file "$ENV{DESTDIR}/etc/.KAVEXUPS")
set(settings "$ENV{DESTDIR}/usr/lib/voltaria/config")

if(NOT EXISTS "${key_file}")
  message(STATUS "Making: ${key_file}")
  file(TOUCH "${key_file}")
  file(CHMOD "${key_file}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endif()

if(NOT EXISTS "${settings}")
  message(STATUS "Making: ${settings}")
  file(COPY_FILE "$ENV{DESTDIR}/usr/share/voltaria/config" "${settings}")
  file(CHMOD "${settings}" PERMISSIONS OWNER_READ OWNER_WRITE)
  # Owner and group as the daemon gives them to its files; below a DESTDIR of somebody else's they cannot be set.
  execute_process(COMMAND chown 0:1 "${settings}" ERROR_QUIET)
endif()
