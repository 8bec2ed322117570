# What `cmake --install` lays down: the shared library, its framework bundle, headers, CMake package, pkg-config file.
# Each belongs to a component, and each component is a package (UtiliaPackages.cmake).

include(CMakePackageConfigHelpers)

set(utilia_include_dir "${CMAKE_INSTALL_INCLUDEDIR}/UtiliaCommon")
set(utilia_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/UtiliaCommon")

target_include_directories(UtiliaCommon INTERFACE "$<INSTALL_INTERFACE:${utilia_include_dir}>")
install(TARGETS UtiliaCommon EXPORT UtiliaCommonTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS utiliactl RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
set(UTILIA_ZSH_COMPLETIONS_DIR "${CMAKE_INSTALL_DATADIR}/zsh/site-functions"
    CACHE STRING "Where zsh looks for completions, seen from the prefix")
install(FILES "${UTILIA_DOCUMENTS}/man/man1/utiliactl.1.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
install(FILES "${UTILIA_DOCUMENTS}/bash-completion/completions/utiliactl"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
install(FILES "${UTILIA_DOCUMENTS}/zsh/site-functions/_utiliactl" DESTINATION "${UTILIA_ZSH_COMPLETIONS_DIR}")
install(FILES "${UTILIA_DOCUMENTS}/fish/vendor_completions.d/utiliactl.fish"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d")
foreach(module IN ITEMS utilia_foundation utilia_logging utilia_platform utilia_framework)
    install(TARGETS ${module} FILE_SET HEADERS DESTINATION "${utilia_include_dir}" COMPONENT development)
endforeach()
# Its programs and modules are installed where they are made.
install(DIRECTORY "${UTILIA_FRAMEWORK_DIR}/Resources" DESTINATION "${CMAKE_INSTALL_LIBDIR}/UtiliaCommon.framework"
    USE_SOURCE_PERMISSIONS COMPONENT library PATTERN utilia-alert EXCLUDE)

install(EXPORT UtiliaCommonTargets NAMESPACE UtiliaCommon:: DESTINATION "${utilia_package_dir}"
    COMPONENT development)
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/UtiliaCommonConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/cmake/UtiliaCommonConfig.cmake" INSTALL_DESTINATION "${utilia_package_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/cmake/UtiliaCommonConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/cmake/UtiliaCommonConfig.cmake"
    "${PROJECT_BINARY_DIR}/cmake/UtiliaCommonConfigVersion.cmake"
    "${PROJECT_SOURCE_DIR}/cmake/UtiliaApplication.cmake"
    "${PROJECT_SOURCE_DIR}/cmake/ApplicationInfo.plist.in"
    "${PROJECT_SOURCE_DIR}/cmake/Application.desktop.in" DESTINATION "${utilia_package_dir}" COMPONENT development)

# Configured when it is installed, so that it names the prefix that `cmake --install --prefix` gives.
install(CODE "
    set(PROJECT_DESCRIPTION \"${PROJECT_DESCRIPTION}\")
    set(PROJECT_VERSION \"${PROJECT_VERSION}\")
    set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
    set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
    configure_file(\"${PROJECT_SOURCE_DIR}/cmake/utiliacommon.pc.in\"
        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/utiliacommon.pc\" @ONLY)"
    COMPONENT development)
