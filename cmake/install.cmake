# Installation: the library, its Lua module link, the pkg-config file, the
# CMake package (find_package(bmsg) -> bmsg::bmsg, bmsg::bimage) and the
# Debian packages made by cpack. Each install rule belongs to one component,
# and each component is one package, split as Debian splits a library:
#   libs  libbmsg<N>   the shared libraries (N: libbmsg's soname version)
#   dev   libbmsg-dev  headers, unversioned links, bmsg.pc, CMake package
#   lua   lua-bmsg     the Lua module link
#   tools bmsg-tools   the bmsg tool, its manual page, the access list
#   device bmsg-device the device's bus and users (device.cmake)
include(CMakePackageConfigHelpers)
include(${CMAKE_CURRENT_LIST_DIR}/lua_module_dir.cmake)

install(TARGETS bmsg EXPORT bmsgTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT libs NAMELINK_COMPONENT dev)
# bmsg.pc names the prefix of the install, chosen at install time like the
# Lua module link's (cpack's /usr, or cmake --install --prefix).
install(CODE "set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(PROJECT_VERSION ${PROJECT_VERSION})
  set(pc \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/bmsg.pc\")
  message(STATUS \"Installing: \${pc}\")
  configure_file(${CMAKE_CURRENT_LIST_DIR}/bmsg.pc.in \${pc} @ONLY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \${pc})" COMPONENT dev)

set(bmsg_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/bmsg)
install(EXPORT bmsgTargets NAMESPACE bmsg:: DESTINATION ${bmsg_cmake_dir} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/bmsgConfig.cmake.in
  ${PROJECT_BINARY_DIR}/bmsgConfig.cmake
  INSTALL_DESTINATION ${bmsg_cmake_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/bmsgConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/bmsgConfig.cmake ${PROJECT_BINARY_DIR}/bmsgConfigVersion.cmake
  DESTINATION ${bmsg_cmake_dir} COMPONENT dev)

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
  set(BMSG_LUA_LIBRARY \"${CMAKE_INSTALL_LIBDIR}/$<TARGET_SONAME_FILE_NAME:bmsg>\")" COMPONENT lua)
install(SCRIPT ${CMAKE_CURRENT_LIST_DIR}/install_lua_module.cmake COMPONENT lua)

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

# Debian package documentation, in each package: the copyright file derived
# from LICENSE and the compressed changelog.
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
set(bmsg_components libs dev lua tools device)
# The library package is named after the soname, as Debian's policy asks:
# a new soname is a new package that can be installed beside the old one.
set(bmsg_libs_package libbmsg${PROJECT_VERSION_MAJOR})
set(bmsg_packages ${bmsg_libs_package} libbmsg-dev lua-bmsg bmsg-tools bmsg-device)
foreach(component package IN ZIP_LISTS bmsg_components bmsg_packages)
  install(FILES ${PROJECT_BINARY_DIR}/copyright ${PROJECT_BINARY_DIR}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
  string(TOUPPER ${component} name)
  set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${package})
endforeach()

# The documents, each with the package of the people who need it: peers and
# library users read the protocol, the tool's users the recorder's page.
install(FILES ${PROJECT_SOURCE_DIR}/docs/protocol.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libbmsg-dev
        COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/docs/recording.md ${PROJECT_SOURCE_DIR}/docs/security.md
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/bmsg-tools COMPONENT tools)

# cpack -G DEB in the build directory makes the five Debian packages; the
# others depend on exactly this version of the library package (the device
# kit on the tools').
set(CPACK_PACKAGE_NAME libbmsg)
set(CPACK_PACKAGE_CONTACT "libbmsg maintainers <maintainers@libbmsg.org>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${bmsg_components})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS libs)
set(CPACK_COMPONENT_LUA_DEPENDS libs)
set(CPACK_COMPONENT_TOOLS_DEPENDS libs)
set(CPACK_DEBIAN_PACKAGE_SOURCE libbmsg)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_LIBS_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LUA_PACKAGE_SECTION interpreters)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(bus_description
"The processes of the biometric device talk to each other through a local
Redis server with this library: named settings, command and response list
queues, status publish/subscribe, and biometric sample images whose pixels
travel through POSIX shared memory while a 32-byte header travels through
Redis.")
set(CPACK_COMPONENT_LIBS_DESCRIPTION "message bus library of the biometric device
${bus_description}
.
This package holds the shared libraries libbmsg (the bus client, the sample
transfer and a small synchronous HTTP client) and libbimage (the image
record of the samples).")
set(CPACK_COMPONENT_DEV_DESCRIPTION "message bus library of the biometric device - development files
${bus_description}
.
This package holds the C++ headers, the pkg-config file bmsg.pc and the
CMake package (find_package(bmsg)).")
set(CPACK_COMPONENT_LUA_DESCRIPTION "message bus library of the biometric device - LuaJIT module
${bus_description}
.
This package holds the link that makes the library the LuaJIT module bmsg.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "message bus library of the biometric device - command-line tool
${bus_description}
.
This package holds bmsg, which looks at and talks to the bus: settings,
lists, publish/subscribe, a live view and biometric samples.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool's own libraries are found in the build (the library package is an explicit
# dependency); dpkg-shlibdeps reads the others' from the system.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# ldconfig through a trigger, as Debian's policy asks of shared libraries.
set(CPACK_DEBIAN_LIBS_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
include(${CMAKE_CURRENT_LIST_DIR}/device.cmake)
include(CPack)
