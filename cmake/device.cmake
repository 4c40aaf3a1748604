# The device kit, package bmsg-device (component device): with it the other
# packages make a running bus without a file written by hand. It holds the
# bus's redis-server unit and configuration, the system users (one per role
# the ACL file turns on, all in the group bmsg) and the maintainer scripts
# that give every role its password (docs/security.md). Only a component
# install (cpack, cmake --install --component device) installs it: its
# paths are the system's, whatever the prefix.
set(bmsg_device_dir ${PROJECT_SOURCE_DIR}/data/device)
set(bmsg_acl ${PROJECT_SOURCE_DIR}/data/device.acl)

# The users follow data/device.acl, the roles' only list: the same rule as
# the configure step's (a "user NAME" line with the rule "on").
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${bmsg_acl})
file(STRINGS ${bmsg_acl} acl_lines REGEX "^user ")
set(sysusers "# Made from device.acl: the bus's user, one user per role.\n\
u bmsg - \"message bus of the biometric device\" /var/lib/bmsg\n")
foreach(line IN LISTS acl_lines)
  if(NOT line MATCHES "^user ([A-Za-z0-9_-]+) ")
    message(FATAL_ERROR "device.acl: a user name may hold only letters, digits, _ and -: ${line}")
  endif()
  set(role ${CMAKE_MATCH_1})
  if(line MATCHES " on( |$)")
    string(APPEND sysusers "u bmsg-${role} -:bmsg \"bmsg role ${role}\"\n")
  endif()
endforeach()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/device/bmsg-device.conf CONTENT "${sysusers}")

install(FILES ${PROJECT_BINARY_DIR}/device/bmsg-device.conf DESTINATION lib/sysusers.d
        COMPONENT device EXCLUDE_FROM_ALL)
install(FILES ${bmsg_device_dir}/bmsg-bus.service DESTINATION lib/systemd/system
        COMPONENT device EXCLUDE_FROM_ALL)
install(FILES ${bmsg_device_dir}/redis.conf DESTINATION /etc/bmsg COMPONENT device EXCLUDE_FROM_ALL)

set(CPACK_COMPONENT_DEVICE_DEPENDS tools)
set(CPACK_DEBIAN_DEVICE_PACKAGE_DEPENDS
    "redis-server, systemd | systemd-standalone-sysusers")
set(CPACK_DEBIAN_DEVICE_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEVICE_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_DEVICE_PACKAGE_CONTROL_EXTRA ${bmsg_device_dir}/conffiles ${bmsg_device_dir}/postinst
    ${bmsg_device_dir}/prerm ${bmsg_device_dir}/postrm)
set(CPACK_DEBIAN_DEVICE_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_DEVICE_DESCRIPTION "message bus library of the biometric device - the device's bus
${bus_description}
.
This package makes the device's bus: redis-server on the Unix socket
/run/bmsg/redis.sock (service bmsg-bus), reachable by the group bmsg only,
under the device's access list with one user per role. Installing it makes
the system users bmsg-<role>, one random password per role in
/etc/bmsg/<role>.env for the role's services, and the access list with
those passwords that the bus loads.")
