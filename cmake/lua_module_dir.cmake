# bmsg_lua_module_dir(<out> <prefix> <setting> <multiarch>): the absolute
# directory of the Lua module link. <setting> is BMSG_LUA_CMOD_DIR: absolute,
# relative to <prefix>, or empty for the directory Debian's LuaJIT searches
# under <prefix> (its package.cpath lists /usr/lib/<multiarch>/lua/5.1 and
# /usr/local/lib/lua/5.1).
function(bmsg_lua_module_dir out prefix setting multiarch)
  if(setting STREQUAL "")
    if(prefix MATCHES "^/usr/?$" AND multiarch)
      set(setting "lib/${multiarch}/lua/5.1")
    else()
      set(setting "lib/lua/5.1")
    endif()
  endif()
  if(NOT IS_ABSOLUTE "${setting}")
    set(setting "${prefix}/${setting}")
  endif()
  set(${out} "${setting}" PARENT_SCOPE)
endfunction()
