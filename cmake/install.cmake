# Installation: the library, its Lua module link, the pkg-config file, the
# CMake package (find_package(bmsg) -> bmsg::bmsg, bmsg::bimage) and the
# Debian package made by cpack.
include(CMakePackageConfigHelpers)
include(${CMAKE_CURRENT_LIST_DIR}/lua_module_dir.cmake)

install(TARGETS bmsg EXPORT bmsgTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/bmsg.pc.in bmsg.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/bmsg.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(bmsg_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/bmsg)
install(EXPORT bmsgTargets NAMESPACE bmsg:: DESTINATION ${bmsg_cmake_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/bmsgConfig.cmake.in
  ${PROJECT_BINARY_DIR}/bmsgConfig.cmake
  INSTALL_DESTINATION ${bmsg_cmake_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/bmsgConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/bmsgConfig.cmake ${PROJECT_BINARY_DIR}/bmsgConfigVersion.cmake
  DESTINATION ${bmsg_cmake_dir})

# The library is also the Lua module "bmsg" (luaopen_bmsg): LuaJIT's require
# finds it as bmsg.so, a link to the library, in <build>/lua (for
# package.cpath / LUA_CPATH) and, once installed, in the module directory,
# chosen at install time so that cpack's /usr gets Debian's multiarch one.
set(BMSG_LUA_CMOD_DIR "" CACHE STRING
    "LuaJIT C module directory for bmsg.so: absolute, relative to the install prefix, or empty \
for where Debian's LuaJIT looks (lib/<multiarch>/lua/5.1 under /usr, else lib/lua/5.1)")
add_custom_command(TARGET bmsg POST_BUILD
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/lua
  COMMAND ${CMAKE_COMMAND} -E create_symlink $<TARGET_FILE:bmsg> ${PROJECT_BINARY_DIR}/lua/bmsg.so
)
install(CODE "set(BMSG_LUA_CMOD_DIR \"${BMSG_LUA_CMOD_DIR}\")
  set(BMSG_MULTIARCH \"${CMAKE_LIBRARY_ARCHITECTURE}\")
  set(BMSG_LUA_LIBRARY \"${CMAKE_INSTALL_LIBDIR}/$<TARGET_SONAME_FILE_NAME:bmsg>\")")
install(SCRIPT ${CMAKE_CURRENT_LIST_DIR}/install_lua_module.cmake)

# Installed, the library finds libbimage beside itself before ldconfig runs,
# also when it is loaded through the module link ($ORIGIN is the link's
# directory then): one path for this prefix, one for the package's /usr.
set(bmsg_rpath "$ORIGIN")
foreach(prefix ${CMAKE_INSTALL_PREFIX} /usr)
  bmsg_lua_module_dir(lua_dir ${prefix} "${BMSG_LUA_CMOD_DIR}" "${CMAKE_LIBRARY_ARCHITECTURE}")
  file(RELATIVE_PATH lua_to_lib ${lua_dir} ${prefix}/${CMAKE_INSTALL_LIBDIR})
  list(APPEND bmsg_rpath "$ORIGIN/${lua_to_lib}")
endforeach()
list(REMOVE_DUPLICATES bmsg_rpath)
set_property(TARGET bmsg PROPERTY INSTALL_RPATH "${bmsg_rpath}")
# For tests of the installed module: the directory under this prefix.
bmsg_lua_module_dir(BMSG_LUA_CMOD_DIR ${CMAKE_INSTALL_PREFIX} "${BMSG_LUA_CMOD_DIR}"
  "${CMAKE_LIBRARY_ARCHITECTURE}")

# Debian package documentation: the copyright file derived from LICENSE and
# the compressed changelog.
file(READ ${PROJECT_SOURCE_DIR}/LICENSE license)
string(REGEX REPLACE "\n$" "" license "${license}")
string(REGEX REPLACE "\n\n" "\n.\n" license "${license}")
string(REGEX REPLACE "\n" "\n " license "${license}")
file(WRITE ${PROJECT_BINARY_DIR}/copyright
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: libbmsg

Files: *
Copyright: 2026 the libbmsg developers
License: BSD-3-Clause
 ${license}
")
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/changelog.Debian.gz
  COMMAND gzip -9nc ${CMAKE_CURRENT_LIST_DIR}/debian/changelog > ${PROJECT_BINARY_DIR}/changelog.Debian.gz
  DEPENDS ${CMAKE_CURRENT_LIST_DIR}/debian/changelog VERBATIM)
add_custom_target(bmsg_changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/changelog.Debian.gz)
install(FILES ${PROJECT_BINARY_DIR}/copyright ${PROJECT_BINARY_DIR}/changelog.Debian.gz
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libbmsg)

# cpack -G DEB in the build directory makes the Debian package.
set(CPACK_PACKAGE_NAME libbmsg)
set(CPACK_PACKAGE_CONTACT "libbmsg maintainers <maintainers@libbmsg.org>")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"message bus library of the biometric device, with Lua module and tool
The processes of the biometric device talk to each other through a local
Redis server with this library: named settings, command and response list
queues, status publish/subscribe, and biometric sample images whose pixels
travel through POSIX shared memory while a 32-byte header travels through
Redis. The library is also the LuaJIT module bmsg, and holds a small
synchronous HTTP client. The bmsg tool looks at and talks to the bus.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# ldconfig through a trigger, as Debian's policy asks of shared libraries.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
include(CPack)
