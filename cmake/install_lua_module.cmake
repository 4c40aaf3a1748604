# Install step: links bmsg.so in the Lua module directory to the installed
# library, with a relative target so that the link also holds under DESTDIR
# and for a prefix chosen at install time (cpack installs under /usr).
# In: BMSG_LUA_CMOD_DIR (see lua_module_dir.cmake), BMSG_MULTIARCH,
# BMSG_LUA_LIBRARY (may be relative to the prefix).
include("${CMAKE_CURRENT_LIST_DIR}/lua_module_dir.cmake")
bmsg_lua_module_dir(dir "${CMAKE_INSTALL_PREFIX}" "${BMSG_LUA_CMOD_DIR}" "${BMSG_MULTIARCH}")
if(NOT IS_ABSOLUTE "${BMSG_LUA_LIBRARY}")
  set(BMSG_LUA_LIBRARY "${CMAKE_INSTALL_PREFIX}/${BMSG_LUA_LIBRARY}")
endif()
file(RELATIVE_PATH target "${dir}" "${BMSG_LUA_LIBRARY}")
set(link "$ENV{DESTDIR}${dir}/bmsg.so")
message(STATUS "Installing: ${link} -> ${target}")
file(MAKE_DIRECTORY "$ENV{DESTDIR}${dir}")
file(CREATE_LINK "${target}" "${link}" SYMBOLIC)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${link}")
