# The Debian package: cmake --preset package && cmake --build --preset package
#
# Two builds of one source are equal, byte for byte: the times in the package are that of the changelog's last entry
# (PackageTime.cmake), and the compiler writes no folder's name into the programs.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME gateway)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Gateway maintainers <maintainers@gateway.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "UPnP Internet Gateway Device for Linux routers")
set(CPACK_PACKAGE_DESCRIPTION
"Hosts in the LAN discover the router, read its description, and ask it to map
a port. Each mapping becomes one destination NAT rule in the kernel, and is
gone the moment the mapping, the interface or the daemon is.
.
The program that reads what the LAN sends has no privilege at all.")

# The package has files in /tesk, outside of its prefix.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_THREADS 1)  # how many would show in the compressed bytes

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles, init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "nftables, iproute2")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(scripts ${CMAKE_SOURCE_DIR}/packaging/debian)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${scripts}/conffiles ${scripts}/postinst ${scripts}/prerm ${scripts}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_GATEWAY_CHANGELOG ${scripts}/changelog)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_SOURCE_DIR}/cmake/PackageTime.cmake)

include(CPack)
