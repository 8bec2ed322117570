# utilia_application(TARGET NAME … IDENTIFIER … SOURCES … [LINK …] [INFO …])
#
# An application that loads the framework, as a bundle in the build tree: Applications/NAME.app/Contents with the
# program (Linux/TARGET) and its Info.plist, and a desktop entry by which it is found once it lies in an "applications"
# folder (share/applications/IDENTIFIER.desktop). INFO is further XML for the Info.plist's dictionary.
function(utilia_application target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "NAME;IDENTIFIER;COMMENT;INFO" "SOURCES;LINK")
    set(contents "${CMAKE_BINARY_DIR}/Applications/${arg_NAME}.app/Contents")
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
    configure_file("${PROJECT_SOURCE_DIR}/Applications/application.desktop.in"
        "${CMAKE_BINARY_DIR}/share/applications/${arg_IDENTIFIER}.desktop" @ONLY)
endfunction()
