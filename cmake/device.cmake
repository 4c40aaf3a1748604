# The device kit, package bmsg-device (component device): with it the other
# packages make a running bus without a file written by hand. It holds the
# bus's redis-server unit and configuration, the system users (one per role
# the ACL file turns on, all in the group bmsg), the provisioning that gives
# every role its password on the device's first boot, units for the roles'
# programs, the recorder and the health check (docs/device.md). Only a
# component install (cpack, cmake --install --component device) installs
# it: its paths are the system's, whatever the prefix.
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
install(FILES ${bmsg_device_dir}/tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME bmsg-device.conf
        COMPONENT device EXCLUDE_FROM_ALL)
install(FILES ${bmsg_device_dir}/bmsg-bus.service ${bmsg_device_dir}/bmsg-provision.service
        ${bmsg_device_dir}/bmsg@.service ${bmsg_device_dir}/bmsg-record.service
        ${bmsg_device_dir}/bmsg-health.service ${bmsg_device_dir}/bmsg-health.timer
        DESTINATION lib/systemd/system COMPONENT device EXCLUDE_FROM_ALL)
install(PROGRAMS ${bmsg_device_dir}/provision-device DESTINATION libexec/bmsg
        COMPONENT device EXCLUDE_FROM_ALL)
install(FILES ${bmsg_device_dir}/redis.conf DESTINATION /etc/bmsg COMPONENT device EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/docs/device.md DESTINATION share/doc/bmsg-device
        COMPONENT device EXCLUDE_FROM_ALL)

set(CPACK_COMPONENT_DEVICE_DEPENDS tools)
set(CPACK_DEBIAN_DEVICE_PACKAGE_DEPENDS
    "redis-server (>= 5:7.0), systemd")
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
under the device's access list with one system user bmsg-<role> per role.
Before the bus's first start (the first boot of a device made from an
image), each role gets a random password in /etc/bmsg/<role>.env and the
bus its access list with them.
The template unit bmsg@.service runs a role's program, bmsg-record.service
records the bus on demand and bmsg-health.timer checks it every 30 s.")
