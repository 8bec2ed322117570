# Read by cpack: the packages belong together in exactly one version.
set(same_version "(= ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(library "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} ${same_version}")
set(alert "${CPACK_DEBIAN_ALERT_PACKAGE_NAME} ${same_version}")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS "${alert}, curl, libarchive-tools")
set(CPACK_DEBIAN_ALERT_PACKAGE_DEPENDS "${library}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library}")
set(CPACK_DEBIAN_APPLICATIONS_PACKAGE_DEPENDS "${library}, ${alert}, curl, libarchive-tools")
set(CPACK_DEBIAN_APPLICATIONS_PACKAGE_RECOMMENDS "libqt6svg6")
