# Debian packages, made by scripts/package (CPack) of a tree that is configured for /usr, from the components of
# UtiliaInstall.cmake:
#
#     libutiliacommon0      library       the shared library and its framework bundle
#     utiliacommon-alert    alert         the window of the framework's alerts, which needs Qt
#     libutiliacommon-dev   development   headers, CMake package, pkg-config file
#     korvane-utilia        applications  the agent, its tools, and utiliactl

if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    return()
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "UtiliaCommon contributors")
set(CPACK_PACKAGE_CONTACT "UtiliaCommon maintainers <maintainers@utiliacommon.example>")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_VERBATIM_VARIABLES ON)
# Each package has a summary of its own, in the first line of its description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_STRIP_FILES ON)
# The desktop entries name the prefix, so it must be the real one while they are made.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# What depends on the version, which cpack may be told (-D CPACK_PACKAGE_VERSION=…).
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_SOURCE_DIR}/Packaging/debian/relations.cmake")
# The installed programs find the library where the system's loader looks anyway.
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/Packaging/debian/remove-run-paths.cmake")

set(CPACK_COMPONENTS_ALL library alert development applications)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")


set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME "libutiliacommon${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "framework of an agent and its small desktop tools
Applications that load this library get a checked start-up, messages between
an agent and its tools, presentation data that outlives a tool, schedules,
starting at login, shared resources and an administrator's settings.

This package holds the library and its modules, which are loaded on first
use.")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/Packaging/debian/triggers")

set(CPACK_DEBIAN_ALERT_PACKAGE_NAME utiliacommon-alert)
set(CPACK_DEBIAN_ALERT_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_ALERT_DESCRIPTION "window of the UtiliaCommon framework's alerts
What an application asks its user before it has a window of its own is asked
by this program. Without it the questions are asked on the terminal.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libutiliacommon-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "framework of an agent and its small desktop tools (development)
Applications that load the UtiliaCommon framework are built with what is in
this package: headers, a CMake package and a pkg-config file.")

set(CPACK_DEBIAN_APPLICATIONS_PACKAGE_NAME korvane-utilia)
set(CPACK_DEBIAN_APPLICATIONS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_APPLICATIONS_DESCRIPTION "agent with small desktop tools of one purpose each
The agent sits in the panel and shows what its tools are doing. They come and
go; what they showed last stays there. utiliactl, the control program, tells
and changes the same from a terminal.")

# What Debian wants each package to say of itself.
find_program(UTILIA_GZIP gzip REQUIRED)
set(utilia_packaging "${PROJECT_BINARY_DIR}/packaging")
configure_file("${PROJECT_SOURCE_DIR}/Packaging/debian/changelog.in" "${utilia_packaging}/changelog.Debian" @ONLY)
configure_file("${PROJECT_SOURCE_DIR}/CHANGELOG.md" "${utilia_packaging}/changelog" COPYONLY)
add_custom_command(OUTPUT "${utilia_packaging}/changelog.gz" "${utilia_packaging}/changelog.Debian.gz"
    COMMAND "${UTILIA_GZIP}" -9nkf "${utilia_packaging}/changelog" "${utilia_packaging}/changelog.Debian"
    DEPENDS "${utilia_packaging}/changelog" "${utilia_packaging}/changelog.Debian" VERBATIM)
add_custom_target(utilia_packaging ALL
    DEPENDS "${utilia_packaging}/changelog.gz" "${utilia_packaging}/changelog.Debian.gz")
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER "${component}" upper)
    install(FILES "${PROJECT_SOURCE_DIR}/Packaging/debian/copyright" "${utilia_packaging}/changelog.gz"
        "${utilia_packaging}/changelog.Debian.gz" COMPONENT ${component}
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
endforeach()

include(CPack)
