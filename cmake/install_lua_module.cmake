# Install step: links bmsg.so in the Lua module directory to the installed
# library, with a relative target so that the link also holds under DESTDIR
# and for a prefix chosen at install time.
# In: BMSG_LUA_CMOD_DIR, BMSG_LUA_LIBRARY (both may be relative to the prefix).
foreach(var BMSG_LUA_CMOD_DIR BMSG_LUA_LIBRARY)
  if(NOT IS_ABSOLUTE "${${var}}")
    set(${var} "${CMAKE_INSTALL_PREFIX}/${${var}}")
  endif()
endforeach()
file(RELATIVE_PATH target "${BMSG_LUA_CMOD_DIR}" "${BMSG_LUA_LIBRARY}")
set(link "$ENV{DESTDIR}${BMSG_LUA_CMOD_DIR}/bmsg.so")
message(STATUS "Installing: ${link} -> ${target}")
file(MAKE_DIRECTORY "$ENV{DESTDIR}${BMSG_LUA_CMOD_DIR}")
file(CREATE_LINK "${target}" "${link}" SYMBOLIC)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${link}")
