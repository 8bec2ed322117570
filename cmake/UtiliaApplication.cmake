# utilia_application(TARGET NAME … IDENTIFIER … SOURCES … [WITHIN …] [LINK …] [INFO …])
#
# An application that loads the framework, as a bundle in the build tree: Applications/NAME.app/Contents with the
# program (Linux/TARGET) and its Info.plist, and a desktop entry by which it is found once it lies in an "applications"
# folder (share/applications/IDENTIFIER.desktop). INFO is further XML for the Info.plist's dictionary.
#
# WITHIN names the application that this one belongs to: it lies in that one's Contents/Applications, and has no desktop
# entry of its own.
#
# What is installed has the same shape, below lib/korvane-utilia; the desktop entries go to share/applications.
function(utilia_application target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "NAME;IDENTIFIER;COMMENT;INFO;WITHIN" "SOURCES;LINK")
    set(bundle "Applications/${arg_NAME}.app")
    if(arg_WITHIN)
        set(bundle "Applications/${arg_WITHIN}.app/Contents/Applications/${arg_NAME}.app")
    endif()
    set(contents "${CMAKE_BINARY_DIR}/${bundle}/Contents")
    add_executable(${target} ${arg_SOURCES})
    target_link_libraries(${target} PRIVATE utilia_options UtiliaCommon ${arg_LINK})
    set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${contents}/Linux")

    set(UTILIA_NAME "${arg_NAME}")
    set(UTILIA_IDENTIFIER "${arg_IDENTIFIER}")
    set(UTILIA_COMMENT "${arg_COMMENT}")
    set(UTILIA_PROGRAM "${target}")
    set(UTILIA_PROGRAM_PATH "${contents}/Linux/${target}")
    set(UTILIA_INFO "${arg_INFO}")
    configure_file("${PROJECT_SOURCE_DIR}/Applications/Info.plist.in" "${contents}/Info.plist" @ONLY)

    set(installed_contents "${CMAKE_INSTALL_LIBDIR}/korvane-utilia/${bundle}/Contents")
    file(RELATIVE_PATH to_libraries "/${installed_contents}/Linux" "/${CMAKE_INSTALL_LIBDIR}")
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libraries}")
    install(TARGETS ${target} RUNTIME DESTINATION "${installed_contents}/Linux")
    install(FILES "${contents}/Info.plist" DESTINATION "${installed_contents}")
    if(arg_WITHIN)
        return()
    endif()
    configure_file("${PROJECT_SOURCE_DIR}/Applications/application.desktop.in"
        "${CMAKE_BINARY_DIR}/share/applications/${arg_IDENTIFIER}.desktop" @ONLY)
    # Configured when it is installed, so that it names the prefix that `cmake --install --prefix` gives.
    install(CODE "
        set(UTILIA_NAME \"${arg_NAME}\")
        set(UTILIA_COMMENT \"${arg_COMMENT}\")
        set(UTILIA_PROGRAM_PATH \"\${CMAKE_INSTALL_PREFIX}/${installed_contents}/Linux/${target}\")
        configure_file(\"${PROJECT_SOURCE_DIR}/Applications/application.desktop.in\"
            \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/applications/${arg_IDENTIFIER}.desktop\" @ONLY)")
endfunction()
